#include "Platform/Linux/Kernel/CookieEvents.h"

#include <bpf/libbpf.h>

#include <cstring>
#include <utility>

namespace platform {

Result<std::unique_ptr<CookieEvents>> CookieEvents::open(int tableDescriptor,
                                                         const __u64& lostEvents) {
    std::unique_ptr<CookieEvents> opened(new CookieEvents(lostEvents));
    opened->ring = ring_buffer__new(tableDescriptor, showEvent, opened.get(), nullptr);
    if (opened->ring == nullptr) return Error::last("open the programs' events");
    return opened;
}

CookieEvents::~CookieEvents() { ring_buffer__free(ring); }

int CookieEvents::descriptor() const { return ring_buffer__epoll_fd(ring); }

int CookieEvents::showEvent(void* context, void* data, std::size_t size) {
    std::uint64_t cookie = 0;
    if (size == sizeof cookie) {
        std::memcpy(&cookie, data, sizeof cookie);
        (*static_cast<CookieEvents*>(context)->shown)(cookie);
    }
    return 0;
}

bool CookieEvents::take(const std::function<void(std::uint64_t)>& show) {
    // Read before the events: what is lost from here on is noticed next time.
    const __u64 lostByNow = __atomic_load_n(&lost, __ATOMIC_RELAXED);
    shown = &show;
    ring_buffer__consume(ring);
    return std::exchange(lostBefore, lostByNow) == lostByNow;
}

}  // namespace platform
