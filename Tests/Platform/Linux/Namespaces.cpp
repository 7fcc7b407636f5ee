#include "Tests/Platform/Linux/Namespaces.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>

namespace platform {
namespace {

bool becomeRootOfAUserNamespace() {
    const auto user = ::getuid();
    const auto group = ::getgid();
    if (::unshare(CLONE_NEWUSER) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    return ::getuid() == 0;
}

}  // namespace

bool enterNamespaces(Namespace wanted) {
    if (::geteuid() != 0 && !becomeRootOfAUserNamespace()) return false;
    const int flags = CLONE_NEWNS | (wanted == Namespace::network ? CLONE_NEWNET : 0);
    if (::unshare(flags) != 0) return false;
    // What is mounted from here on stays in here.
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    if (wanted == Namespace::network) runCommand("ip link set lo up");
    return true;
}

void runCommand(const std::string& command) {
    std::FILE* const output = ::popen((command + " 2>&1").c_str(), "r");
    ASSERT_NE(output, nullptr);
    std::string text;
    std::array<char, 512> piece;
    while (std::fgets(piece.data(), piece.size(), output) != nullptr) text += piece.data();
    EXPECT_EQ(::pclose(output), 0) << command << ": " << text;
}

}  // namespace platform
