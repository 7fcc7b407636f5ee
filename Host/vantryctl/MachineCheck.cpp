#include "Host/vantryctl/MachineCheck.h"

#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Host/vantryctl/Departures.h"
#include "Platform/Linux/Rules/MarkPlaces.h"
#include "Platform/Linux/Rules/MarksInRules.h"

namespace vantryctl {

namespace {

constexpr const char* trackingFolder = "/proc/sys/net/netfilter/nf_conntrack_";
constexpr const char* filterFolder = "/proc/sys/net/ipv4/conf";

std::optional<long> numberIn(const std::string& path) {
    long number = 0;
    if (!(std::ifstream(path) >> number)) return std::nullopt;
    return number;
}

bool isControlGroupTree(const char* path) {
    struct statfs status {};
    return statfs(path, &status) == 0 && status.f_type == CGROUP2_SUPER_MAGIC;
}

// Of the interface, or what counts for all of them if that is more.
long filterSetting(const std::string& interface, const std::string& setting) {
    const auto valueOf = [&](const std::string& name) {
        return numberIn(std::string(filterFolder) + "/" + name + "/" + setting).value_or(0);
    };
    return std::max(valueOf("all"), valueOf(interface));
}

// Ways out on which the filter is strict and does not look at marks, as the daemon has it do for what the kernel
// carries.
std::vector<std::string> uplinksWithStrictFilter(const platform::NetworkState& state) {
    std::vector<std::string> names;
    for (const auto& interface : state.interfaces)
        if (!interface.isTunnel && interface.isAvailable() &&
            filterSetting(interface.name, "rp_filter") == 1 &&
            filterSetting(interface.name, "src_valid_mark") == 0)
            names.push_back(interface.name);
    return names;
}

// The chains of others that see the packets that this machine sends, and those that leave packets
// untracked or send them elsewhere.
struct OtherChains {
    std::set<std::string> atOutput;
    std::set<std::string> redirecting;
    std::set<std::string> untracking;
    std::set<std::string> denying;
    std::set<std::string> guardingTunnel;  // against answers that come in elsewhere
};

bool holdsAnyOf(const std::vector<std::string>& words, std::initializer_list<const char*> wanted) {
    return std::ranges::find_first_of(words, wanted) != words.end();
}

// The words in quotes are those of rules that iptables made.
OtherChains otherChainsIn(const std::string& rules) {
    OtherChains chains;
    std::string table;
    std::string chain;
    std::istringstream lines(rules);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream text(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
        if (words.size() > 2 && words[0] == "table") table = words[1] + " " + words[2];
        if (words.size() > 1 && words[0] == "chain") chain = table + " " + words[1];
        if (line.find(" hook output ") != std::string::npos) chains.atOutput.insert(chain);
        if (line.find("policy drop") != std::string::npos ||
            holdsAnyOf(words, {"drop", "reject", "\"DROP\"", "\"REJECT\""}))
            chains.denying.insert(chain);
        if (line.find("fib saddr type") != std::string::npos && holdsAnyOf(words, {"drop"}))
            chains.guardingTunnel.insert(chain);
        if (line.find(" hook ") != std::string::npos) continue;
        if (holdsAnyOf(words, {"redirect", "dnat", "\"REDIRECT\"", "\"DNAT\""}))
            chains.redirecting.insert(chain);
        else if (holdsAnyOf(words, {"notrack", "\"NOTRACK\""}))
            chains.untracking.insert(chain);
    }
    return chains;
}

std::string atOutput(const OtherChains& chains, const std::set<std::string>& wanted) {
    std::vector<std::string> names;
    std::ranges::set_intersection(wanted, chains.atOutput, std::back_inserter(names));
    return fmt::format("{}", fmt::join(names, ", "));
}

bool isOfType(const platform::NWInterface& interface, platform::NWInterface::InterfaceType type) {
    return interface.type() == type;
}

}  // namespace

Finding checkConnectionTracking() {
    const auto count = numberIn(std::string(trackingFolder) + "count");
    const auto limit = numberIn(std::string(trackingFolder) + "max");
    if (!count || !limit)
        return {"connection table", Verdict::unknown, "it is not in use yet",
                "The daemon's rules load it; modprobe nf_conntrack does too."};
    const std::string detail = fmt::format("{} of {} entries in use", *count, *limit);
    if (*count < *limit / 10 * 9) return {"connection table", Verdict::good, detail, ""};
    return {"connection table", Verdict::warning, detail + ": nearly full, new flows will fail",
            fmt::format("sysctl -w net.netfilter.nf_conntrack_max={}", *limit * 2)};
}

Finding checkControlGroups() {
    if (isControlGroupTree("/sys/fs/cgroup"))
        return {"control groups", Verdict::good, "desktop applications are told apart", ""};
    if (isControlGroupTree("/sys/fs/cgroup/unified"))
        return {"control groups", Verdict::good,
                "in the mixed layout; desktop applications are told apart", ""};
    return {"control groups", Verdict::warning,
            "version 2 is not mounted: desktop applications show as the programs they run",
            "Boot with systemd.unified_cgroup_hierarchy=1."};
}

Finding checkReversePathFilters(const platform::NetworkState& state) {
    const auto names = uplinksWithStrictFilter(state);
    if (names.empty())
        return {"reverse path", Verdict::good, "no strict filter drops direct replies", ""};
    return {
        "reverse path", Verdict::warning,
        fmt::format("strict filtering on {}: replies to direct connections are dropped while the "
                    "VPN is up, unless the kernel carries them (vantryctl status)",
                    fmt::join(names, ", ")),
        "If the daemon relays them: sysctl -w net.ipv4.conf.NAME.rp_filter=2 (and of all, if that "
        "is 1)"};
}

Finding checkFamilies() {
    const auto tunnels = tunnelNames();
    const auto ipv4 = interfaceTowards(farIPv4);
    const auto ipv6 = interfaceTowards(farIPv6);
    const bool isBeside =
        !ipv4.empty() && !ipv6.empty() && tunnels.contains(ipv4) != tunnels.contains(ipv6);
    if (!isBeside) return {"families", Verdict::good, "IPv4 and IPv6 go the same way", ""};
    const bool isIPv6 = tunnels.contains(ipv4);
    const std::string family = isIPv6 ? "IPv6" : "IPv4";
    const auto& interface = isIPv6 ? ipv6 : ipv4;
    return {
        "families", Verdict::warning,
        fmt::format("{} does not go through the VPN: it leaves by {}, also that of applications "
                    "with a rule for the VPN",
                    family, interface),
        fmt::format("Have the VPN carry {}, or turn it off on {}.", family, interface)};
}

Finding checkUplink(const platform::NetworkState& state) {
    using Type = platform::NWInterface::InterfaceType;
    const auto available = state.path().availableInterfaces;
    for (const auto& each : available)
        if (isOfType(each, Type::wifi) || isOfType(each, Type::wiredEthernet))
            return {"physical interface", Verdict::good, each.name(), ""};
    const bool hasOther = std::ranges::any_of(
        available, [](const auto& each) { return !isOfType(each, Type::loopback); });
    return {"physical interface", Verdict::warning,
            hasOther ? "the uplink is neither Wi-Fi nor wired (cellular, PPPoE): nothing can go "
                       "direct over it"
                     : "none has a way out: nothing can go direct now",
            "Direct applications then follow: vantryctl rules fallback direct allow|block"};
}

Finding checkMarks(std::uint32_t bitsInUse) {
    const auto place = platform::interception::freeMarkPlace(bitsInUse);
    if (place)
        return {"packet marks", Verdict::good, fmt::format("the byte {:#x} is free", place->mask()),
                ""};
    return {
        "packet marks", Verdict::missing,
        fmt::format("no byte is free, so the daemon does not start: {:#x} is in use by rules of "
                    "others",
                    bitsInUse),
        "Look for marks in nft list ruleset and ip rule, and free one byte."};
}

Findings findingsInRules(const std::string& rulesOfOthers) {
    const auto chains = otherChainsIn(rulesOfOthers);
    Findings findings;
    const auto redirecting = atOutput(chains, chains.redirecting);
    if (redirecting.empty())
        findings.push_back({"redirects", Verdict::good, "nothing else redirects what is sent", ""});
    else
        findings.push_back({"redirects", Verdict::warning,
                            "what is sent is redirected by " + redirecting,
                            "Direct connections that it catches do not reach the daemon."});
    const auto untracking = atOutput(chains, chains.untracking);
    if (untracking.empty())
        findings.push_back({"tracking", Verdict::good, "every flow is tracked", ""});
    else
        findings.push_back(
            {"tracking", Verdict::warning, "flows go untracked by " + untracking,
             "Untracked flows are not seen by the daemon: take the notrack rules away."});
    const auto denying = atOutput(chains, chains.denying);
    if (denying.empty())
        findings.push_back({"firewall", Verdict::good, "nothing denies what is sent", ""});
    else
        findings.push_back(
            {"firewall", Verdict::warning,
             "what is sent may be denied by " + denying +
                 ": a firewall that denies, or a VPN's kill switch",
             "What direct applications send by the physical interface has to be allowed there."});
    const auto overwriting = platform::interception::tablesThatOverwriteMarks(rulesOfOthers);
    if (!overwriting.empty())
        findings.push_back(
            {"connection marks", Verdict::warning,
             "rules write the whole mark of connections, in the tables " + overwriting +
                 ": blocks and the VPN's fallback don't reach open connections that pass them, and "
                 "direct ones may hang",
             "Have these rules keep the other bits: ct mark set ct mark & 0xffffff00 | 0x1, or "
             "CONNMARK --save-mark --mask 0xff."});
    if (!chains.guardingTunnel.empty())
        findings.push_back(
            {"rules of a VPN", Verdict::warning,
             fmt::format("{} drops what comes to the tunnel's address by another interface",
                         fmt::join(chains.guardingTunnel, ", ")),
             "If direct connections stay \"connecting\" in vantryctl sessions, their answers end "
             "here."});
    return findings;
}

Findings checkOtherRules() {
    // Whom the kernel refuses, the library tells so on its own standard error.
    if (geteuid() != 0)
        return {{"rules of others", Verdict::unknown, "they cannot be listed", "Run it as root."}};
    const auto rules = platform::interception::packetRulesOfOthers();
    if (!rules)
        return {{"rules of others", Verdict::unknown, rules.error().text(),
                 "See whether nft list ruleset can."}};
    auto findings = findingsInRules(*rules);
    findings.push_back(checkMarks(platform::interception::markBitsInUse().used));
    const auto tables =
        platform::interception::legacyTablesInUse({"raw", "mangle", "filter"}).value_or("");
    if (tables.empty()) return findings;
    for (auto& finding : findings)
        if (finding.verdict == Verdict::good) finding.detail += ", as far as nft shows";
    findings.push_back(
        {"iptables-legacy", Verdict::warning,
         "rules may stand in its tables " + tables +
             ", and cannot be read: they may deny, leave flows untracked, or take marks",
         "After update-alternatives --set iptables /usr/sbin/iptables-nft and a restart of the "
         "machine such rules can be read."});
    return findings;
}

}  // namespace vantryctl
