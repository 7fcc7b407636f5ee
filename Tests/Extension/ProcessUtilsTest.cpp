#include "Extension/ProcessUtils.h"

#include <gtest/gtest.h>

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

// A path of an executable, the bundles there are, and the identifier that is found.
struct BundleCase {
    std::string path;
    std::vector<std::pair<std::string, std::optional<std::string>>> bundles;
    std::optional<std::string> found;
    std::vector<std::string> opened;
};

TEST(ProcessUtils, FindsTheOutermostBundleOfTheFirstSuffixThatHasAnIdentifier) {
    World world;
    const std::vector<BundleCase> cases{
        {"/Applications/A.app/Contents/MacOS/A",
         {{"/Applications/A.app", "a"}},
         "a",
         {"/Applications/A.app"}},
        {"/Applications/A.app/Contents/Helpers/C.app/Contents/MacOS/C",
         {{"/Applications/A.app", "a"}, {"/Applications/A.app/Contents/Helpers/C.app", "c"}},
         "a",
         {"/Applications/A.app"}},
        {"/Applications/A.app/Contents/XPCServices/B.xpc/Contents/MacOS/B",
         {{"/Applications/A.app", std::nullopt},
          {"/Applications/A.app/Contents/XPCServices/B.xpc", "b"}},
         "b",
         {"/Applications/A.app", "/Applications/A.app/Contents/XPCServices/B.xpc"}},
        // The bare search for ".app" hits the start of ".appex".
        {"/Library/X/E.appex/Contents/MacOS/E",
         {{"/Library/X/E.appex", "e"}},
         "e",
         {"/Library/X/E.app", "/Library/X/E.appex"}},
        // A suffix that ends a directory name goes before an earlier one that does not.
        {"/opt/my.apps/A.app/A", {{"/opt/my.apps/A.app", "a"}}, "a", {"/opt/my.apps/A.app"}},
        // The next occurrence of a suffix is not tried when the first one opens nothing.
        {"/one.app/two.app/x", {{"/one.app/two.app", "two"}}, std::nullopt, {"/one.app"}},
        // An executable right at a path that ends in the suffix.
        {"/opt/tool.app", {{"/opt/tool.app", "tool"}}, "tool", {"/opt/tool.app"}},
        {"/opt/B.xpc/A.app/A",
         {{"/opt/B.xpc", "b"}, {"/opt/B.xpc/A.app", "a"}},
         "a",
         {"/opt/B.xpc/A.app"}},
        {"/usr/sbin/tool", {}, std::nullopt, {}},
    };
    for (const auto& test : cases) {
        for (const auto& [path, identifier] : test.bundles)
            world.processes.addBundle(path, identifier);
        const auto process = world.process({.path = test.path});
        world.processes.forgetQuestions();
        EXPECT_EQ(ProcessUtils::getBundleIdForPid(process.pid), test.found) << test.path;
        EXPECT_EQ(world.processes.bundlesAskedFor(), test.opened) << test.path;
        for (const auto& bundle : test.bundles) world.processes.removeBundle(bundle.first);
    }
}

TEST(ProcessUtils, APathThatDoesNotFitTheBufferIsNone) {
    World world;
    const std::string name(1100, 'n');
    const auto process = world.process({.path = "/A.app/" + name});
    world.bundle("/A.app", "a");
    EXPECT_EQ(ProcessUtils::getBundleIdForPid(process.pid), std::nullopt);
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
