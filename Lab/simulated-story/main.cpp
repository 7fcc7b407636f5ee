// The story of ./run for a machine whose kernel cannot show it: the same core, the same rules and
// the same applications, on the simulated platform instead of real programs and a real network. It
// is honest about that in its first line, and ends with status 0 only if all went as ruled.

#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>

#include "Platform/Simulated/World.h"

namespace {

using platform::NWHostEndpoint;
using platform::NWInterface;
using platform::simulated::Flow;
using platform::simulated::FlowDescription;
using platform::simulated::Process;
using platform::simulated::World;

constexpr const char* rulesFile = "/tmp/org.quillmere.Vantry.rules.json";
constexpr const char* rulesChanged = "org.quillmere.Vantry.rulesChanged";

enum class Way { besideTheVPN, systemsRoute, dropped, closedAtOnce };

const char* textOf(Way way) {
    switch (way) {
        case Way::besideTheVPN:
            return "relayed over eth0";
        case Way::systemsRoute:
            return "left to the system's route";
        case Way::dropped:
            return "dropped";
        case Way::closedAtOnce:
            return "closed at once";
    }
    return "";
}

class Story {
public:
    bool tell();

private:
    void rules(const char* inWords, std::string_view document);
    Flow opens(const Process& application, const char* port, FlowDescription::Kind kind);
    void connects(const Process& application, const char* ruled, Way expected);
    void asks(const Process& application, const char* port, const char* ruled, Way expected);
    void check(const Process& application, const char* ruled, const char* seen, bool isSo);

    void withoutRules();
    void withRules();
    void changesWhileConnectionsRun();
    void withoutTheVPN();
    void withoutTheInterface();

    World world;
    const Process courier = world.application("Courier", "com.example.courier");
    const Process ledger = world.application("Ledger", "com.example.ledger");
    const Process chatter = world.application("Chatter", "com.example.chatter");
    unsigned right = 0;
    unsigned wrong = 0;
};

void chapter(const char* title) { std::printf("\n%s\n", title); }

void Story::rules(const char* inWords, std::string_view document) {
    std::printf("    rules: %s\n", inWords);
    world.files.put(rulesFile, document);
    world.post(rulesChanged);
    // Sessions that a change ends are ended one after another.
    world.advance(1);
}

Flow Story::opens(const Process& application, const char* port, FlowDescription::Kind kind) {
    auto flow = world.flow({.kind = kind,
                            .remoteEndpoint = NWHostEndpoint{"198.51.100.1", port},
                            .signingIdentifier = application.signingIdentifier,
                            .auditToken = application.auditToken()});
    world.offer(flow);
    world.runUntilIdle();
    return flow;
}

Way wayOf(const Flow& flow) {
    if (flow.lastOffer().dropped()) return Way::dropped;
    if (!flow.isClaimed()) return Way::systemsRoute;
    return flow.isClosed() ? Way::closedAtOnce : Way::besideTheVPN;
}

void Story::check(const Process& application, const char* ruled, const char* seen, bool isSo) {
    ++(isSo ? right : wrong);
    std::printf("    %s %-22s %-30s %s\n", isSo ? "ok   " : "WRONG",
                application.signingIdentifier.c_str(), ruled, seen);
}

void Story::connects(const Process& application, const char* ruled, Way expected) {
    const Way seen = wayOf(opens(application, "443", FlowDescription::Kind::tcp));
    check(application, ruled, textOf(seen), seen == expected);
}

void Story::asks(const Process& application, const char* port, const char* ruled, Way expected) {
    const Way seen = wayOf(opens(application, port, FlowDescription::Kind::udp));
    check(application, ruled, textOf(seen), seen == expected);
}

void Story::withoutRules() {
    chapter("Without a rule, everything takes the system's route, the VPN");
    for (const auto& application : {courier, ledger, chatter})
        connects(application, "no rule", Way::systemsRoute);
}

void Story::withRules() {
    chapter("Rules: one goes beside the VPN, one is blocked");
    rules("courier direct, ledger vpn, chatter blocked",
          R"({"rules":{"com.example.courier":"direct","com.example.ledger":"vpn"},)"
          R"("blockedApps":["com.example.chatter"]})");
    connects(courier, "direct", Way::besideTheVPN);
    connects(ledger, "VPN", Way::systemsRoute);
    connects(chatter, "blocked", Way::dropped);
    asks(chatter, "443", "blocked, QUIC too", Way::dropped);
    asks(chatter, "53", "name look-ups go on", Way::systemsRoute);
}

void Story::changesWhileConnectionsRun() {
    chapter("A rule changes while connections run");
    const auto direct = opens(courier, "443", FlowDescription::Kind::tcp);
    const auto watched = opens(ledger, "443", FlowDescription::Kind::tcp);
    rules("courier vpn, ledger blocked",
          R"({"rules":{"com.example.courier":"vpn","com.example.ledger":"vpn"},)"
          R"("blockedApps":["com.example.ledger"]})");
    check(courier, "direct to VPN: ends", direct.isClosed() ? "closed with a reset" : "goes on",
          direct.isClosed());
    world.outbound(watched, "next byte");
    world.runUntilIdle();
    check(ledger, "now blocked: ends", watched.isEnded() ? "dropped at its next byte" : "goes on",
          watched.isEnded());
    connects(courier, "then again through the VPN", Way::systemsRoute);
}

void Story::withoutTheVPN() {
    chapter("The VPN goes down");
    rules("courier direct, ledger vpn, the VPN is down, its fallback allow",
          R"({"rules":{"com.example.courier":"direct","com.example.ledger":"vpn"},)"
          R"("blockedApps":[],"vpnConnected":false,"vpnFallback":"allow"})");
    connects(ledger, "fallback allow: passes", Way::systemsRoute);
    rules("fallback block",
          R"({"rules":{"com.example.courier":"direct","com.example.ledger":"vpn"},)"
          R"("vpnConnected":false,"vpnFallback":"block"})");
    connects(ledger, "fallback block: denied", Way::dropped);
    connects(courier, "direct", Way::besideTheVPN);
}

void Story::withoutTheInterface() {
    chapter("The physical interface is lost");
    world.setPath({});
    world.runUntilIdle();
    connects(courier, "fallback block: closed", Way::closedAtOnce);
    rules("direct fallback allow",
          R"({"rules":{"com.example.courier":"direct"},"vpnConnected":true,)"
          R"("directFallback":"allow"})");
    connects(courier, "fallback allow: VPN", Way::systemsRoute);
    world.setPath({{"eth0", NWInterface::InterfaceType::wiredEthernet}});
    world.runUntilIdle();
    connects(courier, "eth0 is back: direct", Way::besideTheVPN);
}

bool Story::tell() {
    std::printf(
        "This story is SIMULATED: the same core and rules, no real programs and network.\n");
    world.setPath({{"eth0", NWInterface::InterfaceType::wiredEthernet}});
    world.peer("198.51.100.1", 443);
    if (!world.start()) {
        std::printf("The providers did not start.\n");
        return false;
    }
    withoutRules();
    withRules();
    changesWhileConnectionsRun();
    withoutTheVPN();
    withoutTheInterface();
    std::printf("\n%u as the rules say, %u otherwise (simulated)\n", right, wrong);
    return wrong == 0;
}

}  // namespace

int main() { return Story().tell() ? 0 : 1; }
