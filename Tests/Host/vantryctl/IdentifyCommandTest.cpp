#include <sys/stat.h>

#include <filesystem>

#include "Tests/Host/vantryctl/ToolTest.h"

namespace vantryctl::testing {
namespace {

class IdentifyCommand : public ToolTest {};

std::string identifierOf(const std::string& subject) {
    const auto result = runTool({"identify", subject, "--json"});
    EXPECT_EQ(result.exitCode, 0) << subject << result.err;
    return textUnder(parsed(result.out), "bundleId");
}

TEST_F(IdentifyCommand, ProgramsAndProcessesHaveTheNamesThatRulesAreGivenFor) {
    std::filesystem::create_directories("/tmp/Demo.app/Contents/MacOS");
    writeFile("/tmp/Demo.app/Contents/Info.plist",
              "<plist><dict><key>CFBundleIdentifier</key><string>org.example.demo</string>"
              "</dict></plist>");
    writeFile("/tmp/Demo.app/Contents/MacOS/demo", "");
    writeFile("/tmp/tool.sh", "");
    EXPECT_EQ(identifierOf("/tmp/Demo.app/Contents/MacOS/demo"), "org.example.demo");
    EXPECT_EQ(identifierOf("/tmp/tool.sh"), "tool-sh");
    if (!hasOtherAccounts()) GTEST_SKIP() << needsAccounts;
    ASSERT_EQ(chown("/tmp/tool.sh", strangerAccount, 0), 0);
    EXPECT_EQ(identifierOf("/tmp/tool.sh"), "/tmp/tool-sh");
    // This test is an ordinary program: as a process and as a file it has the same name.
    EXPECT_EQ(identifierOf(std::to_string(getpid())),
              identifierOf(std::filesystem::read_symlink("/proc/self/exe")));
}

TEST_F(IdentifyCommand, WhatIsNotThereIsSaid) {
    for (const char* subject : {"/tmp/missing", "/tmp", "999999999", "-0x1"})
        EXPECT_NE(runTool({"identify", subject}).exitCode, 0) << subject;
}

}  // namespace
}  // namespace vantryctl::testing
