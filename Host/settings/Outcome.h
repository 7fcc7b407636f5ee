// How an operation on the settings, or a command of the tool, ends: with a value or with a failure that a
// person can act on. The exit codes are part of the tool's documentation.
#pragma once

#include <string>
#include <utility>
#include <variant>

namespace vantryhost {

enum class ExitCode {
    done = 0,
    failed = 1,
    usage = 2,             // the command line asks for something that doesn't exist
    daemonNotRunning = 3,  // the command needs the daemon
    notPermitted = 4,      // only root and the members of the group may do this
    // What `why` found; over the system's own route, the VPN while it is up, is 0.
    goesDirectly = 10,
    isBlocked = 11,
};

struct Failure {
    ExitCode code = ExitCode::failed;
    std::string what;
    std::string advice;  // what to do about it; may be empty
};

struct Nothing {};

template <class Value = Nothing>
using Outcome = std::variant<Value, Failure>;

template <class Value>
const Failure* failureOf(const Outcome<Value>& outcome) {
    return std::get_if<Failure>(&outcome);
}

}  // namespace vantryhost
