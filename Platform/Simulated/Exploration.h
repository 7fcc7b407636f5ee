// Tries a story with many seeds, each in a process of its own, as the core's coordinator lives as
// long as its process; or some in each, for stories that leave the coordinator as they found it. The first seed that fails is reported with what its process printed and with
// the way to repeat it; where the environment names a seed (SEED=n), only that one is tried, in this
// process, for a debugger to follow.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace platform::simulated {

struct Exploration {
    std::uint64_t firstSeed = 1;
    std::uint64_t seeds = 1000;
    std::uint64_t seedsPerProcess = 1;
    unsigned processesAtOnce = 2;
    double secondsPerSeed = 100;  // one that takes longer hangs, however busy the machine is
};

struct FailedSeed {
    std::uint64_t seed;
    std::string how;     // "exit status 1", "signal 6", ...
    std::string output;  // what its process printed
};

// `story` gives true if all was well with this seed. Nothing failed: nothing is returned. Called
// while this process has one thread.
std::optional<FailedSeed> explore(const Exploration& exploration,
                                  const std::function<bool(std::uint64_t seed)>& story);

}  // namespace platform::simulated
