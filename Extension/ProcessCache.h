// Remembers which bundle identifier an audit token resolved to, so that further flows and bytes of the
// same process cost one lookup. Tokens count byte for byte. Entries do not expire; when the cache is
// full, all of them go at once, which bounds memory with no bookkeeping per entry. Any thread; the lock
// is held for the table only, never for the resolving.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Common/Data.h"
#include "Platform/Common/StringHash.h"
#include "Platform/Foundation.h"

namespace vantry {

class ProcessCache {
public:
    std::optional<std::string> find(const platform::Data& auditToken) const {
        const platform::NSLockGuard hold(lock);
        const auto entry = entries.find(key(auditToken));
        if (entry == entries.end()) return std::nullopt;
        return entry->second;
    }

    void store(const platform::Data& auditToken, std::string bundleId) {
        const platform::NSLockGuard hold(lock);
        if (entries.size() >= processCacheMaxSize) entries.clear();
        entries.insert_or_assign(std::string(key(auditToken)), std::move(bundleId));
    }

    void removeAll() {
        const platform::NSLockGuard hold(lock);
        entries.clear();
    }

private:
    static std::string_view key(const platform::Data& auditToken) {
        return auditToken.bytes().value_or(std::string_view{});
    }

    static constexpr std::size_t processCacheMaxSize = 1000;

    platform::StringMap<std::string> entries GUARDED_BY(lock);
    mutable platform::NSLock lock;
};

}  // namespace vantry
