// What each kind of real process is shown as.

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <optional>

#include "Platform/Foundation.h"
#include "Platform/LibProc.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Tests/Platform/Linux/Attribution/RealPrograms.h"

namespace platform {
namespace {

using testing::readyAs;
using testing::RunningProgram;
using testing::TemporaryFolder;

std::string shownPath(pid_t pid) {
    std::array<char, 1024> buffer{};
    return proc_pidpath(pid, buffer.data(), buffer.size()) > 0 ? buffer.data() : "";
}

pid_t shownParent(pid_t pid) {
    proc_bsdinfo info;
    return proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, info) > 0 ? static_cast<pid_t>(info.pbi_ppid) : 0;
}

// The identifier that a search from the left finds in the shown path.
std::optional<std::string> foundIdentifier(pid_t pid) {
    const auto path = shownPath(pid);
    for (const std::string suffix : {".app", ".xpc", ".appex"}) {
        auto start = path.find(suffix + "/");
        if (start == std::string::npos) start = path.find(suffix);
        if (start == std::string::npos) continue;
        const auto bundle = NSBundle::bundleWithPath(path.substr(0, start + suffix.size()));
        if (bundle && bundle->bundleIdentifier()) return bundle->bundleIdentifier();
    }
    return std::nullopt;
}

std::string signedAs(pid_t pid) {
    const auto process = ProcessTable::shared().examine(pid);
    return process ? process->signingIdentifier : "";
}

class Applications : public ::testing::Test {
protected:
    void SetUp() override {
        if (const auto reason = testing::reasonForNoOrdinaryPrograms(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }
    TemporaryFolder folder;
};

TEST_F(Applications, ABundleIsItselfAlsoBehindAFalseOne) {
    folder.addFile("Old.app/readme", "not a bundle");
    folder.addBundle("Old.app/Editor.app", "com.example.Editor");
    const auto program = folder.addProgram("Old.app/Editor.app/Contents/MacOS/Editor");
    const RunningProgram running(program, readyAs("$$"));
    ASSERT_TRUE(running.isReady());
    EXPECT_EQ(signedAs(running.pid()), "com.example.Editor");
    // A search from the left would end at the false one, so that another path is shown.
    EXPECT_EQ(foundIdentifier(running.pid()), "com.example.Editor");
    EXPECT_NE(shownPath(running.pid()), program);
    EXPECT_EQ(shownParent(running.pid()), 1);
}

TEST_F(Applications, AUsersOwnProgramIsNamedByItsPath) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a file to another user";
    const auto tool = folder.addProgram("dir.d/tool\xff.x");
    ASSERT_EQ(::chown(tool.c_str(), 4321, 4321), 0);
    const RunningProgram running(tool, readyAs("$$"), [] { testing::becomePerson(4321); });
    ASSERT_TRUE(running.isReady());
    const auto name = folder.path("dir-d/tool\\xff-x");
    EXPECT_EQ(signedAs(running.pid()), name);
    EXPECT_EQ(foundIdentifier(running.pid()), name);
    EXPECT_EQ(ProcessTable::shared().examine(running.pid())->status.effectiveUserId, 4321U);
}

TEST_F(Applications, AProgramReplacedWhileItRunsKeepsItsName) {
    const auto tool = folder.addProgram("bin/tool");
    const auto marked = folder.addProgram("bin/other (deleted)");
    const RunningProgram replaced(tool, readyAs("$$"));
    const RunningProgram calledSo(marked, readyAs("$$"));
    ASSERT_TRUE(replaced.isReady() && calledSo.isReady());
    std::filesystem::remove(tool);
    folder.addProgram("bin/tool");
    const std::string prefix = ::geteuid() == 0 ? "" : folder.path("bin/");
    EXPECT_EQ(signedAs(replaced.pid()), prefix + "tool");
    EXPECT_EQ(signedAs(calledSo.pid()), prefix + "other (deleted)");
}

TEST_F(Applications, NobodyIsNobody) {
    for (const pid_t pid : {-1, 0, 2, 0x7fffffff}) {
        EXPECT_EQ(shownPath(pid), "") << pid;
        EXPECT_EQ(shownParent(pid), 0) << pid;
    }
}

}  // namespace
}  // namespace platform
