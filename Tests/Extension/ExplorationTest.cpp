// Random mixtures of everything that can happen to both providers, over many seeds, with what must hold
// checked after every event; and the same on real threads. That each completion runs exactly once and that
// no lock is held when calling out is watched by the simulated platform itself.

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "Tests/Extension/TransparentProxyProvider/ProxyProbe.h"
#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

using ConnectionState = NWConnection::State::Kind;

const NSError refused{"test", 1, "no"};
const std::string lastWords = "bye";

// What must hold at every moment, whatever happened before it. What the providers say in the log tells
// which operations an event carried out; what they leave behind is looked at from within.
class Invariants {
public:
    explicit Invariants(World& simulated) : world(simulated) {}

    void check() {
        const auto lines = world.takeLog();
        const ProxyProbe proxy(*world.proxy());
        checkSessions(proxy, lines);
        checkSharedState(proxy, lines);
        checkActivityLog(proxy, lines);
        checkLogFile(lines);
    }

private:
    // The table has an entry for every live session that no kill has taken, and no other. A session says
    // nothing after its end.
    void checkSessions(const ProxyProbe& proxy, const std::vector<LogLine>& lines) {
        const auto table = proxy.table();
        for (const auto& [sid, session] : table) known.emplace(sid, session);
        for (const auto& line : lines) {
            if (line.format.starts_with("Scheduling ")) taken.insert(std::stoll(line.arguments[0]));
            if (!line.format.starts_with("sid=%ld ")) continue;
            EXPECT_TRUE(known.contains(std::stoll(line.arguments[0]))) << line;
        }
        for (auto entry = known.begin(); entry != known.end();) {
            const auto& [sid, observed] = *entry;
            const auto session = observed.lock();
            const bool isLive = session && !ProxyProbe::hasEnded(*session);
            EXPECT_EQ(table.contains(sid), isLive && !taken.contains(sid)) << "sid " << sid;
            entry = isLive ? std::next(entry) : known.erase(entry);
        }
    }

    // The filter is told what the rules in force at the last push say, and nothing after a stop.
    void checkSharedState(const ProxyProbe& proxy, const std::vector<LogLine>& lines) {
        const auto rules = proxy.rules();
        const auto& blocked = rules->blockedApps;
        const auto pushWatched = [&](bool withBlocked) {
            pushed.watched.clear();
            for (const auto& [bundleId, word] : *rules->routingRules)
                if (word != "direct" && (withBlocked || !blocked->contains(bundleId)))
                    pushed.watched.insert(bundleId);
        };
        for (const auto& line : lines) {
            const auto& format = line.format;
            const bool isFile = format.starts_with("Loaded rules from shared file");
            const bool isDelivery = format.starts_with("Received rules-changed");
            if (isFile || format.starts_with("Loaded %ld routing rules from config")) {
                pushed.isVpnConnected = rules->isVpnConnected;
                pushed.vpnFallback = rules->vpnFallback;
                pushed.isInitialized = true;
            }
            if (isFile || isDelivery) pushed.blocked = {blocked->begin(), blocked->end()};
            if (isDelivery || format.starts_with("Initial rules")) pushWatched(!isDelivery);
            if (format.starts_with("Coordinator state reset")) pushed = {};
        }
        EXPECT_EQ(ProxyProbe::shared(), pushed);
    }

    // No entry is lost but the oldest of more than 500, those that a message clears, and what the
    // filter has left when the proxy stops; each recorded flow gives one entry; the order stays.
    void checkActivityLog(const ProxyProbe& proxy, const std::vector<LogLine>& lines) {
        const auto before = std::exchange(log, proxy.log());
        const auto leftBefore = std::exchange(recordsLeft, ProxyProbe::recordsLeft());
        std::size_t recorded = 0;
        bool isCleared = false, isReset = false;
        for (const auto& line : lines) {
            if (isOfARecord(line)) ++recorded;
            if (line.text == "Decoded message type: clearActivityLog") isCleared = true;
            if (line.text.starts_with("Coordinator state reset")) isReset = true;
        }
        EXPECT_LE(log.size(), 500u);
        if (isCleared) {
            EXPECT_TRUE(log.empty() && recordsLeft == leftBefore);
            return;
        }
        const auto first = log.empty() ? before.end() : std::ranges::find(before, log.front());
        const auto kept = static_cast<std::size_t>(before.end() - first);
        ASSERT_LE(kept, log.size());
        EXPECT_TRUE(std::equal(first, before.end(), log.begin()));
        EXPECT_TRUE(kept == before.size() || log.size() == 500) << "entries are gone";
        EXPECT_EQ(log.size() - kept + recordsLeft.size(),
                  recorded + (isReset ? 0 : leftBefore.size()));
    }

    // A write that works leaves the whole list.
    void checkLogFile(const std::vector<LogLine>& lines) {
        const auto writes = world.files.count(FileOperation::writeAtomically, activityLogFile);
        const bool hasWritten = std::exchange(writesSeen, writes) != writes;
        if (!hasWritten || std::ranges::any_of(lines, [](const LogLine& line) {
                return line.format.starts_with("Failed to write activity log file");
            }))
            return;
        const auto file = ActivityLogResponseIPC::decode(*world.files.contents(activityLogFile));
        ASSERT_TRUE(std::holds_alternative<ActivityLogResponseIPC>(file));
        const auto& entries = std::get<ActivityLogResponseIPC>(file).entries;
        EXPECT_TRUE(std::ranges::equal(entries, log, {}, &ActivityLogEntryIPC::id));
    }

    // Whether the line belongs to a flow that leaves an entry.
    static bool isOfARecord(const LogLine& line) {
        static constexpr std::array formats{"DIRECT path: ", "VPN path: ", "BLOCK: %{public}s %s",
                                            "VPN BLOCK: %{public}s %s", "QUIC BLOCK"};
        return std::ranges::any_of(
            formats, [&](const char* format) { return line.format.starts_with(format); });
    }

    World& world;
    std::map<std::int64_t, std::weak_ptr<ProxySession>> known;
    std::set<std::int64_t> taken;
    ProxyProbe::Shared pushed;
    std::vector<UUID> log, recordsLeft;
    std::size_t writesSeen = 0;
};

// A mixture of everything that can happen, drawn from the seed.
class Mixture {
public:
    explicit Mixture(World& simulated) : world(simulated), invariants(simulated) {
        for (const auto* name : {"A", "B", "C"})
            apps.push_back(world.application(name, std::string("com.example.") + name));
        apps.push_back(world.process(
            {.path = "/bin/tool", .parent = apps[0].pid, .signingIdentifier = "tool"}));
        apps.push_back(world.process(
            {.path = "/sbin/daemon", .effectiveUserId = 0, .signingIdentifier = "daemon"}));
        world.peer("h", 1).echoes();
        world.peer("h", 2).isUnreachable();
        world.peer("h", 3).waits(2);
        world.peer("h", 4).sendsLast(lastWords);
        world.peer("h", 5).refuses();
        world.files.failAtRandom(20);
        world.scheduler.setLatency(0.3);
        world.afterEachEvent([this] { invariants.check(); });
        world.files.put(rulesFile, anyFile());
        world.preferences.setProviderConfiguration(anyRules());
        world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
        world.startFilter();
        world.runUntilIdle();
        start();
    }

    void step() {
        switch (world.draw(18)) {
            case 0:
            case 1:
                world.files.put(rulesFile, anyFile());
                world.post(rulesChanged);
                break;
            case 2:
                world.setPath(anyPath());
                break;
            case 3:
                EXPECT_TRUE(world.message(anyMessage()).hasCome());
                break;
            case 4:
                world.providers.proxySettings.script({refused});
                break;
            case 5:
                EXPECT_TRUE(world.sleep().hasCome());
                world.wake();
                break;
            case 6:
                if (world.draw(4) != 0) break;
                stop();
                if (world.draw(4) != 0) start();
                break;
            case 7:
                if (world.draw(4) != 0) break;
                for (int n = 0; n < 200; ++n) openAFlow();
                break;
            case 8:
                world.peer("h", 1).fails(refused);
                break;
            case 9:
            case 10:
                useAFlow();
                break;
            default:
                openAFlow();
        }
        invariants.check();
    }

    // Everything has come to its end, and each claimed flow to one of its own.
    void finish() {
        stop();
        world.runToEnd();
        for (const auto& start : starts) EXPECT_TRUE(start.hasCome());
        EXPECT_FALSE(ProxyProbe(*world.proxy()).isFlushing());
        for (const auto& [flow, sent] : flows) {
            EXPECT_LE(flow.record().opens, 1);
            if (!flow.isClaimed()) continue;
            EXPECT_TRUE(flow.isClosedOnceCleanly() || flow.isClosedOnceWith(peerReset()));
            EXPECT_TRUE(sent.starts_with(flow.received()) ||
                        lastWords.starts_with(flow.received()));
        }
        for (const auto& connection : world.network.connections())
            EXPECT_TRUE(connection->state() == ConnectionState::cancelled ||
                        connection->record().starts == 0);
    }

private:
    void start() {
        starts.push_back(world.startProxy());
        isRunning = true;
        invariants.check();
    }
    // From here on new flows pass, and a watched one is dropped at its next byte.
    void stop() {
        EXPECT_TRUE(world.stopProxy().hasCome());
        isRunning = false;
        invariants.check();
        for (const auto& [flow, sent] : flows) {
            if (!flow.lastOffer().watched() || flow.isEnded()) continue;
            const auto verdict = world.outbound(flow, "x");
            EXPECT_TRUE(verdict && verdict->kind == NEFilterDataVerdict::Kind::drop);
            invariants.check();
        }
    }

    std::string anyFile() { return world.draw(10) == 0 ? "not json" : anyRules(); }
    std::string anyRules() {
        return randomRules(world, {"com.example.A", "com.example.B", "com.example.C"});
    }
    const char* anyMessage() {
        return std::array{R"({"type":"getStatus"})", R"({"type":"getActiveApps"})",
                          R"({"type":"clearActivityLog"})",
                          R"({"type":"reload","rules":{"com.example.A":"direct"}})",
                          "nonsense"}[world.draw(5)];
    }
    std::vector<NWInterface> anyPath() {
        if (world.draw(3) == 0) return {{"utun0", NWInterface::InterfaceType::other}};
        return {{world.draw(2) ? "en0" : "en1", NWInterface::InterfaceType::wifi}};
    }
    void openAFlow() {
        const auto& app = apps[world.draw(apps.size())];
        auto flow = world.flow(
            {.kind = world.draw(4) ? FlowDescription::Kind::tcp : FlowDescription::Kind::udp,
             .remoteEndpoint = NWHostEndpoint{"h", std::array{"1", "1", "2", "3", "4", "5", "53",
                                                              "443"}[world.draw(8)]},
             .signingIdentifier = app.signingIdentifier,
             .auditToken = app.auditToken()});
        if (world.draw(10) == 0) flow.failsOpening(refused);
        if (world.draw(10) == 0) flow.opensAfter(static_cast<double>(world.draw(20)));
        const auto offer = world.offer(flow);
        EXPECT_TRUE(isRunning || offer.allowed());
        flows.emplace_back(flow, "");
        invariants.check();
    }
    void useAFlow() {
        if (flows.empty()) return;
        auto& [flow, sent] = flows[world.draw(flows.size())];
        switch (world.draw(4)) {
            case 0:
                return flow.endsSending();
            case 1:
                return flow.fails(refused);
            default:
                const std::string bytes(world.draw(100'000) + 1,
                                        static_cast<char>('a' + world.draw(20)));
                sent += bytes;
                return flow.sends(bytes);
        }
    }

    World& world;
    Invariants invariants;
    std::vector<Process> apps;
    std::vector<std::pair<Flow, std::string>> flows;  // and what each has sent
    std::vector<Outcome> starts;
    bool isRunning = false;
};

TEST(ProxyExploration, RandomStoriesKeepTheirInvariants) {
    EXPECT_TRUE(holdsForSeeds(500, [](World& world) {
        Mixture mixture(world);
        for (int step = 0; step < 80 && !testing::Test::HasFailure(); ++step) {
            mixture.step();
            if (world.draw(2) == 0) world.runUntilIdle();
            if (world.draw(4) == 0) world.advance(static_cast<double>(world.draw(40)) / 10);
        }
        mixture.finish();
    }));
}

// Flows, messages, notifications, path updates, timers and the filter's records that really overlap; for
// the thread sanitizer above all.
void everythingAtOnce(World& world) {
    std::vector<Process> apps;
    for (char letter = 'A'; letter <= 'T'; ++letter)
        apps.push_back(
            world.application(std::string(1, letter), std::string("com.example.") + letter));
    world.peer("h", 1).echoes();
    world.files.put(rulesFile, R"({"rules":{},"defaultAction":"direct","directFallback":"vpn"})");
    ASSERT_TRUE(world.start());
    std::vector<Flow> flows;
    for (int n = 0; n < 900; ++n) {
        flows.push_back(world.tcpFlow(apps[world.draw(apps.size())], "h", "1"));
        world.later(
            [&world, n, flow = flows.back()]() mutable {
                world.offer(flow);
                flow.sends("hello");
                if (n % 3 == 0) world.later([flow]() mutable { flow.endsSending(); }, 0.5);
            },
            n < 100 ? 0 : n / 150.0);  // many at the very beginning, without an interface
    }
    for (int n = 0; n < 60; ++n)
        world.later(
            [&world, n] {
                const std::string word = n % 3 == 0 ? "direct" : "vpn";
                const std::string blocked = n % 4 == 0 ? "\"com.example.B\"" : "";
                world.files.put(rulesFile, R"({"rules":{"com.example.A":")" + word +
                                               R"("},"blockedApps":[)" + blocked + "]}");
                world.post(rulesChanged);
                world.message(R"({"type":"getActiveApps"})");
                if (n == 7) world.message(R"({"type":"clearActivityLog"})");
                if (n % 9 == 0) world.wake();
                if (n % 5 == 0) world.setPath({});
                if (n % 5 == 1) world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
            },
            n / 10.0);
    world.runToEnd();
    // The log may have been cleared last of all.
    flows.push_back(world.tcpFlow(apps[0], "h", "1"));
    world.offer(flows.back());
    world.runToEnd();
    world.stopProxy();
    world.runToEnd();
    const ProxyProbe proxy(*world.proxy());
    EXPECT_EQ(proxy.sessions(), 0u);
    EXPECT_LE(proxy.log().size(), 500u);
    EXPECT_TRUE(std::holds_alternative<ActivityLogResponseIPC>(
        ActivityLogResponseIPC::decode(world.files.contents(activityLogFile).value_or(""))));
    const auto lines = world.log();
    EXPECT_EQ(std::ranges::count(lines, "First flow handled at %s app=%s", &LogLine::format), 1);
    const auto failures = world.files.contents("/container/connection_failures.json").value_or("");
    const auto notices =
        std::ranges::count(lines, "Direct connection failed for %s -> %s", &LogLine::format);
    EXPECT_GE(notices, 15);
    EXPECT_EQ(std::ranges::count(failures, '{'), std::min(notices, std::ptrdiff_t{50}));
    for (const auto& flow : flows) {
        if (!flow.isClaimed()) continue;
        EXPECT_TRUE(flow.isClosedOnceCleanly() || flow.isClosedOnceWith(peerReset()));
    }
}

TEST(ProxyExploration, EverythingAtOnceOnThreads) {
    EXPECT_TRUE(holdsForSeeds(10, everythingAtOnce, {.order = Order::threads}));
}

}  // namespace
}  // namespace vantry
