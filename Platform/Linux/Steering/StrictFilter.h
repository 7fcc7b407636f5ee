// The kernel's strict check of where packets come from (rp_filter 1) asks the routes without looking at
// marks, and would drop the answers to steered connections while a VPN has the default route. Where the
// check is strict, this tells it to look at marks on the interface, and takes that back at the end. A file
// names the interfaces, so that what a killed process has changed is the next one's to take back. IPv6 has
// no such check. One thread.
#pragma once

#include <set>
#include <string>

namespace platform::steering {

class StrictFilter {
public:
    StrictFilter();
    ~StrictFilter() { takeBack(); }
    StrictFilter(const StrictFilter&) = delete;
    StrictFilter& operator=(const StrictFilter&) = delete;

    // False if answers over this interface would be dropped, and that cannot be changed.
    bool letMarksCount(const std::string& interface);
    // The interfaces are as they were.
    void takeBack();

private:
    void store() const;

    std::set<std::string> changed;
};

}  // namespace platform::steering
