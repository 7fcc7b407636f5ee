// A value that some threads replace as a whole while others read it. A reader takes a snapshot, which
// stays what it is however often the value is replaced meanwhile, and never sees half of one. The lock
// is held for the exchange of a pointer only; making the new value and ending the old one happen
// outside it.
#pragma once

#include <memory>
#include <utility>

#include "Platform/Foundation.h"

namespace vantry {

template <class T>
class Published {
public:
    using Snapshot = std::shared_ptr<const T>;

    explicit Published(T initial = T()) : current(std::make_shared<const T>(std::move(initial))) {}

    Snapshot snapshot() const {
        const platform::NSLockGuard hold(lock);
        return current;
    }

    // Gives the snapshot of `value`.
    Snapshot replace(T value) {
        Snapshot next = std::make_shared<const T>(std::move(value));
        auto replaced = next;
        const platform::NSLockGuard hold(lock);
        current.swap(replaced);
        return next;
    }

    // Replaces the value by a changed copy of it, in one step against other changes. Readers wait for the
    // copying: only for small values.
    template <class Change>
    void change(Change&& apply) {
        const platform::NSLockGuard hold(lock);
        auto next = std::make_shared<T>(*current);
        apply(*next);
        current = std::move(next);
    }

private:
    mutable platform::NSLock lock;
    Snapshot current GUARDED_BY(lock);
};

}  // namespace vantry
