// What a program in the kernel tells the daemon of sockets, by their cookies: a ring with room for so many,
// and a count of those that found none. It refers to an object of programs and lives no longer than that. One
// thread takes events; any may ask for the descriptor.
#pragma once

#include <linux/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "Platform/Linux/Result.h"

struct ring_buffer;

namespace platform {

class CookieEvents {
public:
    // `lostEvents` is the count that the program itself keeps.
    static Result<std::unique_ptr<CookieEvents>> open(int tableDescriptor, const __u64& lostEvents);
    ~CookieEvents();
    CookieEvents(const CookieEvents&) = delete;
    CookieEvents& operator=(const CookieEvents&) = delete;

    // Readable when there are events.
    int descriptor() const;
    // Shows the cookies of the sockets to look at. False if there were more events than there was room
    // for: then it may be about any socket.
    bool take(const std::function<void(std::uint64_t cookie)>& show);

private:
    explicit CookieEvents(const __u64& lostEvents) : lost(lostEvents) {}

    static int showEvent(void* context, void* data, std::size_t size);

    const __u64& lost;
    ring_buffer* ring = nullptr;
    const std::function<void(std::uint64_t)>* shown = nullptr;
    __u64 lostBefore = 0;
};

}  // namespace platform
