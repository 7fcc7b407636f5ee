#include "Platform/Linux/Steering/StrictFilter.h"

#include <algorithm>
#include <fstream>

namespace platform::steering {

namespace {

constexpr int strict = 1;

std::string place(const std::string& interface, const std::string& setting) {
    return "/proc/sys/net/ipv4/conf/" + interface + "/" + setting;
}

int read(const std::string& interface, const std::string& setting) {
    int value = 0;
    std::ifstream(place(interface, setting)) >> value;
    return value;
}

bool write(const std::string& interface, const std::string& setting, int value) {
    std::ofstream file(place(interface, setting));
    file << value << std::flush;
    return file.good();
}

// Of the two settings the stricter counts.
bool isStrict(const std::string& interface) {
    return std::max(read("all", "rp_filter"), read(interface, "rp_filter")) == strict;
}

bool doMarksCount(const std::string& interface) {
    return read("all", "src_valid_mark") != 0 || read(interface, "src_valid_mark") != 0;
}

}  // namespace

StrictFilter::~StrictFilter() {
    for (const auto& interface : changed) write(interface, "src_valid_mark", 0);
}

bool StrictFilter::letMarksCount(const std::string& interface) {
    if (!isStrict(interface) || doMarksCount(interface)) return true;
    if (!write(interface, "src_valid_mark", 1)) return false;
    changed.insert(interface);
    return true;
}

}  // namespace platform::steering
