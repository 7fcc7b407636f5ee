// What is explained is what happens: random machines, rules and flows, each flow explained before it is
// offered. And the explanation leaves no trace, as some are asked for twice and others not at all.

#include "Extension/FlowExplanation.h"

#include <string>
#include <vector>

#include "Tests/Extension/TransparentProxyProvider/ProxyTest.h"

namespace vantry {
namespace {

const std::vector<std::string> names{"a.b", "a.b.c", "a.b.c.d", "p.q.r", "com.wireguard.macos",
                                     "z"};

Process randomProcess(World& world, std::vector<Process>& before) {
    Process process{.path = "/bin/" + std::to_string(before.size()),
                    .parent = before.empty() ? 1 : before[world.draw(before.size())].pid,
                    .effectiveUserId = world.draw(5) == 0 ? 0u : 501u,
                    .signingIdentifier = names[world.draw(names.size())]};
    if (world.draw(3) > 0) {
        const auto bundle = "/A" + std::to_string(before.size()) + ".app";
        world.bundle(bundle, world.draw(2) == 0 ? process.signingIdentifier
                                                : names[world.draw(names.size())]);
        process.path = bundle + "/x";
    }
    before.push_back(world.process(process));
    return before.back();
}

std::string whatHappens(World& world, const Process& process, const FlowQuestion& question) {
    const auto flow = world.flow(
        {.kind = question.isDatagram ? FlowDescription::Kind::udp : FlowDescription::Kind::tcp,
         .remoteEndpoint = question.remote,
         .signingIdentifier = process.signingIdentifier,
         .auditToken = process.auditToken()});
    const auto offer = world.offer(flow);
    if (offer.dropped()) return "blocked";
    if (!offer.claimed) return offer.watched() ? "system, watched" : "system";
    world.runUntilIdle();
    // Whatever is connected to a peer stays open.
    return flow.isClosed() ? "blocked" : "direct";
}

std::string explained(World& world, const FlowQuestion& question) {
    const auto document = FlowExplanation::explain(*world.proxy(), *world.filter(), question);
    const auto text = [&](const char* key) {
        return *document.find(key)->second.as<std::string>();
    };
    const auto watched = document.find("isWatched");
    const bool isWatched = watched != document.end() && *watched->second.as<bool>();
    return text("route") + (isWatched && text("route") == "system" ? ", watched" : "");
}

void explanations(World& world) {
    world.peer("h", 443).echoes();
    world.peer("h", 53).echoes();
    if (world.draw(4) > 0) world.setPath({{"en0", NWInterface::InterfaceType::wifi}});
    world.files.put(rulesFile, randomRules(world, names));
    ASSERT_TRUE(world.start());
    std::vector<Process> processes;
    for (int step = 0; step < 12; ++step) {
        if (world.draw(3) == 0) {
            world.files.put(rulesFile, randomRules(world, names));
            world.post(rulesChanged);
            world.runUntilIdle();
        }
        const auto process = processes.size() < 3 || world.draw(2) == 0
                                 ? randomProcess(world, processes)
                                 : processes[world.draw(processes.size())];
        const FlowQuestion question{.metaData = {process.signingIdentifier, process.auditToken()},
                                    .remote = {"h", world.draw(2) == 0 ? "443" : "53"},
                                    .isDatagram = world.draw(3) == 0};
        const auto said = explained(world, question);
        if (world.draw(2) == 0)
            explained(world,
                      {.metaData = {process.signingIdentifier, {}}, .remote = question.remote});
        EXPECT_EQ(said, explained(world, question));
        if (world.draw(3) == 0) continue;
        EXPECT_EQ(said, whatHappens(world, process, question)) << process.signingIdentifier;
    }
}

TEST(FlowExplanation, SaysWhatHappens) { EXPECT_TRUE(holdsForSeeds(400, explanations)); }

}  // namespace
}  // namespace vantry
