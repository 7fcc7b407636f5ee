// A table that forgets: it holds the latest entries, at least `size` and at most twice as many, and
// lets go of the older ones in bulk. Any thread.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <unordered_map>
#include <utility>

#include "Platform/Common/Mutex.h"

namespace platform {

template <class Key, class Value, class Hash = std::hash<Key>, class Equal = std::equal_to<Key>>
class RecentMemory {
public:
    explicit RecentMemory(std::size_t size) : generationSize(size) {}

    std::optional<Value> find(const Key& key) {
        const MutexGuard guard(lock);
        for (const auto* generation : {&young, &old}) {
            const auto found = generation->find(key);
            if (found != generation->end()) return found->second;
        }
        return std::nullopt;
    }

    void remember(const Key& key, Value value) {
        const MutexGuard guard(lock);
        if (young.size() >= generationSize) old = std::exchange(young, {});
        young.insert_or_assign(key, std::move(value));
    }

    void forget(const Key& key) {
        const MutexGuard guard(lock);
        young.erase(key);
        old.erase(key);
    }

private:
    using Generation = std::unordered_map<Key, Value, Hash, Equal>;
    const std::size_t generationSize;
    Mutex lock;  // held for table work only
    Generation young GUARDED_BY(lock);
    Generation old GUARDED_BY(lock);
};

}  // namespace platform
