// The address list of the simulated machine, as getifaddrs shows it. Any thread.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/InterfaceAddresses.h"

namespace platform::simulated {

// An entry of the list. An address with a colon is an IPv6 one; none makes an entry without address.
struct InterfaceAddress {
    std::string name;
    std::optional<std::string> address;
};

class Interfaces {
public:
    Interfaces();
    ~Interfaces();

    void set(const std::vector<InterfaceAddress>& list);
    // The next `times` calls fail.
    void failGetifaddrs(int times = 1);
    void failGetnameinfo(int times = 1);
    // Lists that the core took and did not give back.
    std::size_t listsOutstanding() const;

    // The core's side.
    int take(struct ::ifaddrs** list);
    void giveBack(struct ::ifaddrs* list);
    bool nameLookupFails();

private:
    struct List;

    mutable Mutex mutex;
    std::unique_ptr<const List> addresses GUARDED_BY(mutex);
    int failingLists GUARDED_BY(mutex) = 0;
    int failingNames GUARDED_BY(mutex) = 0;
    std::map<const struct ::ifaddrs*, std::unique_ptr<List>> outstanding GUARDED_BY(mutex);
};

}  // namespace platform::simulated
