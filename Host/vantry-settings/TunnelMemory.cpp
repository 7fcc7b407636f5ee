#include "Host/vantry-settings/TunnelMemory.h"

#include <fmt/format.h>
#include <unistd.h>

#include <fstream>

#include "Host/settings/Places.h"
#include "Host/vantry-settings/DurableFile.h"

namespace vantrysettings {

std::set<std::string> TunnelMemory::read() {
    std::set<std::string> names;
    std::ifstream file(vantryhost::places::tunnelsFile);
    for (std::string name; std::getline(file, name);) names.insert(std::move(name));
    return names;
}

vantryhost::Outcome<> TunnelMemory::keep(const std::set<std::string>& names) {
    std::string lines;
    for (const auto& name : names) lines += fmt::format("{}\n", name);
    return replaceUntilBoot(vantryhost::places::tunnelsFile, lines, {geteuid(), getegid(), 0644});
}

}  // namespace vantrysettings
