#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#include "Platform/Foundation.h"
#include "Platform/Linux/Logging/LogStore.h"
#include "Tests/Platform/Linux/Namespaces.h"

namespace platform {
namespace {

using ::testing::HasSubstr;

// A folder like /tmp, on a small file system that only this test sees.
class Files : public ::testing::Test {
protected:
    static constexpr std::size_t capacity = 256 * 1024;

    void SetUp() override {
        if (!enterNamespaces(Namespace::mount)) GTEST_SKIP() << "no namespaces here";
        ASSERT_EQ(::mount("tmpfs", "/mnt", "tmpfs", 0, "size=256k,mode=1777"), 0);
    }

    static std::string inFolder(const std::string& name) { return "/mnt/" + name; }
    static void make(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
        std::ofstream(path) << bytes;
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
    }
    static std::optional<std::string> contents(const std::string& path) {
        const auto data = NSFileManager::defaultManager().contentsAtPath(path);
        if (!data) return std::nullopt;
        return std::string(data->bytes().value());
    }
    static std::size_t filesInFolder() {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator("/mnt"), {}));
    }

    NSFileManager& files = NSFileManager::defaultManager();
};

TEST_F(Files, ReadsWholeFilesAndTheBytesThatWereWritten) {
    std::string bytes(100'000, 'x');
    bytes[50'000] = '\0';
    make(inFolder("plain"), bytes);
    make(inFolder("empty"), "");
    EXPECT_EQ(contents(inFolder("plain")), bytes);
    EXPECT_EQ(contents(inFolder("empty")), "");
    EXPECT_EQ(contents(inFolder("missing")), std::nullopt);
    // A file whose size is not known in advance.
    EXPECT_THAT(contents("/proc/self/status").value_or(""), HasSubstr("VmRSS"));
}

TEST_F(Files, OverwritingReplacesAllThatWasThereAndALinkOrAStrangersFileByANewOne) {
    EXPECT_EQ(files.write("something long", inFolder("file")), std::nullopt);
    EXPECT_EQ(files.write("short", inFolder("file")), std::nullopt);
    EXPECT_EQ(contents(inFolder("file")), "short");
    const auto failure = files.write("x", "/mnt/no/such/folder");
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code, ENOENT);
    EXPECT_THAT(failure->localizedDescription, HasSubstr("No such file"));

    make(inFolder("target"), "precious");
    make(inFolder("open"), "long old content", 0666);
    ASSERT_EQ(::symlink("/mnt/target", "/mnt/link"), 0);
    ASSERT_EQ(::mkdir("/mnt/folder", 0755), 0);
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(files.setPosixPermissions(0777, inFolder("link")));
    EXPECT_EQ(contents(inFolder("open")), std::nullopt);
    for (const auto* name : {"link", "open"}) {
        EXPECT_EQ(files.write("new", inFolder(name)), std::nullopt) << name;
        EXPECT_EQ(contents(inFolder(name)), "new") << name;
    }
    EXPECT_TRUE(files.write("new", inFolder("folder")).has_value());
    flushLog();
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(contents(inFolder("target")), "precious");
}

TEST_F(Files, ReplacingALinkReplacesTheLinkItself) {
    make(inFolder("target"), "precious");
    ASSERT_EQ(::symlink("/mnt/target", "/mnt/link"), 0);
    EXPECT_EQ(files.writeAtomically("new", inFolder("link")), std::nullopt);
    EXPECT_EQ(contents(inFolder("link")), "new");
    EXPECT_EQ(contents(inFolder("target")), "precious");
    EXPECT_TRUE(files.setPosixPermissions(0640, inFolder("link")));
    EXPECT_EQ(std::filesystem::status(inFolder("link")).permissions(),
              static_cast<std::filesystem::perms>(0640));
    EXPECT_TRUE(files.removeItemAtPath(inFolder("link")));
    EXPECT_FALSE(files.removeItemAtPath(inFolder("link")));
}

TEST_F(Files, AReplacementThatFailsLeavesWhatWasThereWholeAndNothingBeside) {
    ASSERT_EQ(files.writeAtomically("old", inFolder("file")), std::nullopt);
    const auto failure = files.writeAtomically(std::string(2 * capacity, 'x'), inFolder("file"));
    ASSERT_TRUE(failure.has_value());
    EXPECT_EQ(failure->code, ENOSPC);
    EXPECT_EQ(contents(inFolder("file")), "old");
    // A folder in the way is kept beside it.
    ASSERT_EQ(::mkdir("/mnt/folder", 0755), 0);
    EXPECT_FALSE(files.removeItemAtPath(inFolder("folder")));
    EXPECT_EQ(files.writeAtomically("x", inFolder("folder")), std::nullopt);
    EXPECT_EQ(contents(inFolder("folder")), "x");
    EXPECT_EQ(filesInFolder(), 3U);
}

TEST_F(Files, TheGroupsFolderIsMadeWhenAskedFor) {
    ASSERT_EQ(::mount("tmpfs", "/var/lib", "tmpfs", 0, "mode=755"), 0);
    const auto folder =
        files.containerURLForSecurityApplicationGroupIdentifier("group.org.quillmere.Vantry");
    ASSERT_TRUE(folder.has_value());
    EXPECT_EQ(files.write("[]", *folder + "/connection_failures.json"), std::nullopt);
    EXPECT_EQ(contents(*folder + "/connection_failures.json"), "[]");
    EXPECT_EQ(files.containerURLForSecurityApplicationGroupIdentifier("group.com.example.other"),
              std::nullopt);
}

TEST(Identifiers, AreNeverTheSame) {
    std::vector<std::string> made(20'000);
    std::vector<std::thread> threads;
    for (std::size_t start = 0; start < made.size(); start += 5'000)
        threads.emplace_back([&made, start] {
            std::generate_n(made.begin() + static_cast<std::ptrdiff_t>(start), 5'000,
                            [] { return UUID::random().uuidString(); });
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(std::set<std::string>(made.begin(), made.end()).size(), made.size());
}

}  // namespace
}  // namespace platform
