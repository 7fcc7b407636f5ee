// A machine of the test's own for everything at a fixed path: a mount namespace with empty /run,
// /tmp and /var/lib and, for root, an account database that has the group "vantry". Others are root of a
// user namespace that knows no other account. Each test is a process of its own, so that this is undone
// by its end.
#pragma once

#include <grp.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Tests/Platform/Linux/Eventually.h"
#include "Tests/Platform/Linux/Namespaces.h"

namespace platform::testing {

inline constexpr gid_t vantryGroupId = 4242;
inline constexpr uid_t memberByAccount = 4301;  // the group is in its account's list
inline constexpr uid_t strangerAccount = 4302;

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path) << content;
}

// In one step, for a file that is watched.
inline void replaceFile(const std::string& path, const std::string& content) {
    writeFile(path + ".new", content);
    ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
}

inline std::string contentOf(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

class PrivateMachine : public ::testing::Test {
protected:
    void SetUp() override {
        if (!enterNamespaces(Namespace::mount)) GTEST_SKIP() << "needs root or user namespaces";
        for (const char* place : {"/run", "/tmp", "/var/lib"})
            ASSERT_EQ(mount("tmpfs", place, "tmpfs", 0, "mode=0755"), 0) << place;
        ASSERT_EQ(chmod("/tmp", 01777), 0);
        if (hasOtherAccounts()) useAccounts();
    }

    // Whether files can be given to other accounts and processes can run for them.
    bool hasOtherAccounts() const { return wasRoot; }
    static constexpr const char* needsAccounts =
        "needs root: files and processes of other accounts";

    // Whether `act` succeeds when a process of this account and these groups does it.
    static bool succeedsAs(uid_t account, const std::vector<gid_t>& groups,
                           const std::function<bool()>& act) {
        const pid_t child = fork();
        if (child == 0) {
            const bool isDone = setgroups(groups.size(), groups.data()) == 0 &&
                                setgid(account) == 0 && setuid(account) == 0 && act();
            _exit(isDone ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }

private:
    const bool wasRoot = geteuid() == 0;

    static void useAccounts() {
        writeFile("/run/group", contentOf("/etc/group") + "vantry:x:4242:vantrymember\n");
        writeFile("/run/passwd",
                  contentOf("/etc/passwd") +
                      "vantrymember:x:4301:4301::/nonexistent:/usr/sbin/nologin\n"
                      "vantrystranger:x:4302:4302::/nonexistent:/usr/sbin/nologin\n");
        ASSERT_EQ(mount("/run/group", "/etc/group", nullptr, MS_BIND, nullptr), 0);
        ASSERT_EQ(mount("/run/passwd", "/etc/passwd", nullptr, MS_BIND, nullptr), 0);
    }
};

}  // namespace platform::testing
