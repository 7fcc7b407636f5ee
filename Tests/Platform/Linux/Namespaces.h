// Gives a test a piece of the machine of its own: mounts, and a network in which it may do what it
// likes. To be called first thing, before any other thread exists that has to live in there too.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <string>

namespace platform {

enum class Namespace { mount, network };

// Runs a shell command and gives what it printed, errors included. A command that fails ends the
// test by throwing that.
inline std::string runCommand(const std::string& command) {
    std::FILE* const pipe = ::popen(("{ " + command + "\n} 2>&1").c_str(), "r");
    if (pipe == nullptr) throw std::runtime_error("no shell");
    std::string output;
    std::array<char, 4096> piece;
    while (const std::size_t count = std::fread(piece.data(), 1, piece.size(), pipe))
        output.append(piece.data(), count);
    if (::pclose(pipe) != 0) throw std::runtime_error(command + ": " + output);
    return output;
}

// The account keeps its number on the outside, so that files look as they did.
inline bool becomeRootOfAUserNamespace() {
    const auto user = ::getuid();
    const auto group = ::getgid();
    if (::unshare(CLONE_NEWUSER) != 0) return false;
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    return ::geteuid() == 0;
}

// Moves the calling thread, and those that it makes later, into fresh namespaces: one for mounts,
// and with `network` also one for the network, whose loopback is up. Without root a user namespace
// comes first, in which the test is root. False if the machine does not allow it.
inline bool enterNamespaces(Namespace wanted) {
    if (::geteuid() != 0 && !becomeRootOfAUserNamespace()) return false;
    const int flags = CLONE_NEWNS | (wanted == Namespace::network ? CLONE_NEWNET : 0);
    if (::unshare(flags) != 0) return false;
    // What is mounted from here on stays in here.
    if (::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    if (wanted == Namespace::network) runCommand("ip link set lo up");
    return true;
}

}  // namespace platform
