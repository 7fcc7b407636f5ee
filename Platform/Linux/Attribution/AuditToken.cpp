#include "Platform/Linux/Attribution/AuditToken.h"

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
    hash.add(fields.executableDevice);
    hash.add(fields.executableInode);
    hash.add(fields.signingIdentifier);
    return static_cast<std::uint32_t>(hash.value() ^ (hash.value() >> 32));
}

}  // namespace

AuditToken makeAuditToken(const AuditTokenFields& fields) {
    AuditToken token{};
    setWord(token, 1, shownUserId(fields.effectiveUserId));
    setWord(token, 5, static_cast<std::uint32_t>(fields.pid));
    if (fields.pid != 0) setWord(token, 7, version(fields));
    return token;
}

}  // namespace platform
