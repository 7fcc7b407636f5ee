#include "Host/vantry-settings/TunnelMemory.h"

#include <fmt/format.h>
#include <unistd.h>

#include <fstream>
#include <initializer_list>

#include "Host/settings/Places.h"
#include "Host/vantry-settings/DurableFile.h"

namespace vantrysettings {

namespace places = vantryhost::places;

namespace {

constexpr const char* full = "full";
constexpr const char* split = "split";

// A line each: the kind and the name.
TunnelKinds kindsIn(const char* path) {
    TunnelKinds kinds;
    std::ifstream file(path);
    for (std::string kind, name; file >> kind >> name;)
        if (kind == full || kind == split)
            kinds[name] = kind == full ? TunnelKind::full : TunnelKind::split;
    return kinds;
}

}  // namespace

TunnelMemory TunnelMemory::read() {
    return {kindsIn(places::tunnelsFile), kindsIn(places::tunnelsOfBefore)};
}

vantryhost::Outcome<> TunnelMemory::keep(const TunnelKinds& kinds) {
    std::string lines;
    for (const auto& [name, kind] : kinds)
        lines += fmt::format("{} {}\n", kind == TunnelKind::full ? full : split, name);
    for (const auto* path : {places::tunnelsFile, places::tunnelsOfBefore})
        if (auto kept = replaceUnsynced(path, lines, {geteuid(), getegid(), 0644}); failureOf(kept))
            return kept;
    return vantryhost::Nothing{};
}

}  // namespace vantrysettings
