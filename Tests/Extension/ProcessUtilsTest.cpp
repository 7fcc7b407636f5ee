#include "Extension/ProcessUtils.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "Platform/Simulated/World.h"

namespace vantry {
namespace {

using platform::Data;
using platform::simulated::World;

TEST(ProcessUtils, ReadsATokenOfExactlyEightWords) {
    const auto token = platform::simulated::makeAuditToken(501, 4711);
    EXPECT_EQ(ProcessUtils::pidFromAuditToken(token), 4711);
    EXPECT_EQ(ProcessUtils::wordOfAuditToken(token, 1), 501u);
    const std::string bytes(*token.bytes());
    for (const auto& wrong : {std::string(), bytes.substr(1), bytes + "x"}) {
        EXPECT_EQ(ProcessUtils::pidFromAuditToken(Data(wrong)), std::nullopt) << wrong.size();
        EXPECT_EQ(ProcessUtils::wordOfAuditToken(Data(wrong), 1), std::nullopt) << wrong.size();
    }
}

TEST(ProcessUtils, FindsTheOutermostBundleOfTheFirstSuffixThatHasAnIdentifier) {
    // A path of an executable, the bundles there are, those that are opened, and what is found.
    struct Case {
        std::string path;
        std::map<std::string, std::optional<std::string>> bundles;
        std::vector<std::string> opened;
        std::optional<std::string> found;
    };
    const std::string a = "/Applications/A.app", inner = a + "/Helpers/C.app",
                      service = a + "/B.xpc";
    const std::vector<Case> cases{
        {a + "/Contents/MacOS/A", {{a, "a"}}, {a}, "a"},
        {inner + "/C", {{a, "a"}, {inner, "c"}}, {a}, "a"},
        {service + "/B", {{a, {}}, {service, "b"}}, {a, service}, "b"},
        // The bare search for ".app" hits the start of ".appex".
        {"/X/E.appex/E", {{"/X/E.appex", "e"}}, {"/X/E.app", "/X/E.appex"}, "e"},
        // A suffix that ends a directory name goes before an earlier one that does not.
        {"/my.apps/A.app/A", {{"/my.apps/A.app", "a"}}, {"/my.apps/A.app"}, "a"},
        // The next occurrence of a suffix is not tried when the first one opens nothing.
        {"/one.app/two.app/x", {{"/one.app/two.app", "two"}}, {"/one.app"}, {}},
        // An executable right at a path that ends in the suffix.
        {"/opt/tool.app", {{"/opt/tool.app", "tool"}}, {"/opt/tool.app"}, "tool"},
        {"/B.xpc/A.app/A", {{"/B.xpc", "b"}, {"/B.xpc/A.app", "a"}}, {"/B.xpc/A.app"}, "a"},
        {"/usr/sbin/tool", {}, {}, {}},
        // A path that does not fit the buffer is none.
        {"/A.app/" + std::string(1100, 'n'), {{"/A.app", "a"}}, {}, {}},
    };
    for (const auto& test : cases) {
        World world;
        for (const auto& [path, identifier] : test.bundles)
            world.processes.addBundle(path, identifier);
        const auto process = world.process({.path = test.path});
        EXPECT_EQ(ProcessUtils::getBundleIdForPid(process.pid), test.found) << test.path;
        EXPECT_EQ(world.processes.bundlesAskedFor(), test.opened) << test.path;
    }
}

TEST(ProcessUtils, LooksAtFiveAncestorsAndNeverAtProcessOne) {
    World world;
    world.bundle("/K.app", "known");
    std::int32_t parent = 1;
    std::vector<std::int32_t> chain;
    for (int depth = 0; depth < 8; ++depth) {
        parent = world.process({.path = depth == 1 ? "/K.app/k" : "/bin/p", .parent = parent}).pid;
        chain.push_back(parent);
    }
    const auto isKnown = [](const std::string& bundleId) { return bundleId == "known"; };
    // chain[1] is the known one: chain[6] has it five levels up, chain[7] six.
    EXPECT_EQ(ProcessUtils::nearestKnownAncestor(chain[6], isKnown), "known");
    EXPECT_EQ(ProcessUtils::nearestKnownAncestor(chain[7], isKnown), std::nullopt);
    EXPECT_EQ(ProcessUtils::nearestKnownAncestor(chain[1], isKnown), std::nullopt);
    world.process({.path = "/K.app/k", .pid = 1});
    EXPECT_EQ(ProcessUtils::nearestKnownAncestor(chain[0], isKnown), std::nullopt);
}

}  // namespace
}  // namespace vantry
