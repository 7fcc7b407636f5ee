#include "Host/vantryctl/CheckCommand.h"

#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string_view>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/Finding.h"
#include "Host/vantryctl/KernelCheck.h"
#include "Host/vantryctl/MachineCheck.h"
#include "Platform/Linux/HostChannel/TrustedAccounts.h"
#include "Platform/Linux/Network/NetworkMonitor.h"

namespace vantryctl {

using platform::JSONArray;
using platform::JSONObject;

namespace {

std::string_view wordFor(Verdict verdict) {
    switch (verdict) {
        case Verdict::good:
            return "good";
        case Verdict::warning:
            return "warning";
        case Verdict::missing:
            return "MISSING";
        case Verdict::unknown:
            return "unknown";
    }
    return "";
}

Finding checkGroup() {
    if (platform::trustedGroup())
        return {"group vantry", Verdict::good, "its members may use this tool without sudo", ""};
    return {"group vantry", Verdict::warning, "there is none: only root may use this tool in full",
            "groupadd --system vantry, then usermod -aG vantry NAME"};
}

// The kernel first: its child process must begin before anything makes a thread.
Findings findings() {
    Findings all = checkKernel();
    const auto append = [&](Findings more) { std::ranges::move(more, std::back_inserter(all)); };
    const auto network = platform::NetworkMonitor::shared().state();
    append({checkConnectionTracking(), checkControlGroups(), checkReversePathFilters(*network)});
    append(checkOtherRules());
    append({checkUplink(*network), checkFamilies(), checkGroup()});
    return all;
}

JSONObject documentOfFinding(const Finding& finding) {
    return {{"subject", finding.subject},
            {"verdict", std::string(wordFor(finding.verdict))},
            {"detail", finding.detail},
            {"advice", finding.advice}};
}

void print(const Findings& all, const Console& console) {
    constexpr std::size_t indent = 9;
    for (const auto& finding : all) {
        std::string word(wordFor(finding.verdict));
        word.resize(indent, ' ');
        const auto text = wrapped(printable(finding.subject + ": " + finding.detail + "."), indent,
                                  console.width);
        console.out << word << text.substr(indent);
        if (!finding.advice.empty())
            console.out << wrapped(printable("-> " + finding.advice), indent, console.width);
    }
}

bool has(const Findings& all, Verdict verdict) {
    return std::ranges::any_of(all,
                               [&](const auto& finding) { return finding.verdict == verdict; });
}

ExitCode conclude(const Findings& all, const Console& console) {
    if (has(all, Verdict::missing)) return ExitCode::failed;
    if (geteuid() == 0 || !has(all, Verdict::unknown)) return ExitCode::done;
    return console.report({ExitCode::notPermitted, "Not everything could be looked at.",
                           "Run it as root: sudo vantryctl check"});
}

}  // namespace

ExitCode checkMachine(bool asJSON, const Console& console) {
    const auto all = findings();
    if (asJSON) {
        JSONArray list;
        for (const auto& finding : all) list.emplace_back(documentOfFinding(finding));
        console.out << documentOf({{"findings", std::move(list)}});
    } else {
        print(all, console);
    }
    return conclude(all, console);
}

ExitCode checkMachineBriefly(const Console& console) {
    const auto all = findings();
    Findings others;
    std::ranges::copy_if(all, std::back_inserter(others),
                         [](const auto& finding) { return finding.verdict != Verdict::good; });
    console.out << "Of what the daemon needs and meets here, "
                << (others.empty() ? "all is good.\n" : "all is good but:\n");
    print(others, console);
    return conclude(all, console);
}

}  // namespace vantryctl
