#include "Platform/Linux/Attribution/AuditToken.h"

#include <algorithm>
#include <cstring>

#include "Platform/Linux/Attribution/StableHash.h"
#include "Platform/Linux/Attribution/SystemAccounts.h"

namespace platform {

namespace {

void setWord(AuditToken& token, std::size_t index, std::uint32_t value) {
    std::memcpy(token.data() + index * sizeof value, &value, sizeof value);
}

std::uint32_t version(const AuditTokenFields& fields) {
    StableHash hash;
    hash.add(fields.startTime);
    hash.add(fields.executable);
    hash.add(std::uint64_t{0});  // between two texts
    hash.add(fields.signingIdentifier);
    return static_cast<std::uint32_t>(hash.value() ^ (hash.value() >> 32));
}

}  // namespace

AuditToken makeAuditToken(const AuditTokenFields& fields) {
    AuditToken token{};
    const auto shown = shownUserId(fields.effectiveUserId);
    setWord(token, 1, fields.isApplication ? std::max(shown, shownUserIdOfApplications) : shown);
    setWord(token, 5, static_cast<std::uint32_t>(fields.pid));
    if (fields.pid != 0) setWord(token, 7, version(fields));
    return token;
}

}  // namespace platform
