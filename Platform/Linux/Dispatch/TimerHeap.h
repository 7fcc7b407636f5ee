// Work that waits for an instant of the monotonic clock, earliest first; work of the same instant
// keeps its order. Not locked: its owner serves one thread or guards it.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Common/Completion.h"

namespace platform {

class TimerHeap {
public:
    using Clock = std::chrono::steady_clock;

    // The instant that lies `seconds` ahead. Anything below zero is now; what the clock cannot
    // express is a century.
    static Clock::time_point instantAfter(double seconds) {
        constexpr double century = 100.0 * 365 * 86400;
        const double bounded = seconds > 0 ? std::min(seconds, century) : 0.0;  // NaN is now
        return Clock::now() +
               std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(bounded));
    }

    void add(Clock::time_point due, Completion<> work) {
        entries.push_back({due, nextNumber++, std::move(work)});
        std::push_heap(entries.begin(), entries.end(), isLater);
    }

    bool isEmpty() const { return entries.empty(); }
    // When the first work is due. The heap must not be empty.
    Clock::time_point firstDue() const { return entries.front().due; }

    // Takes the first work out if it is due at `now`; nothing otherwise.
    std::optional<Completion<>> takeDue(Clock::time_point now) {
        if (entries.empty() || entries.front().due > now) return std::nullopt;
        std::pop_heap(entries.begin(), entries.end(), isLater);
        std::optional<Completion<>> work(std::move(entries.back().work));
        entries.pop_back();
        return work;
    }

private:
    struct Entry {
        Clock::time_point due;
        std::uint64_t number;
        Completion<> work;
    };
    static bool isLater(const Entry& a, const Entry& b) {
        return a.due != b.due ? a.due > b.due : a.number > b.number;
    }

    std::vector<Entry> entries;
    std::uint64_t nextNumber = 0;
};

}  // namespace platform
