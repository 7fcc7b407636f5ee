// What tests say about a simulated world in GoogleTest's terms; included by tests only.
//
//     EXPECT_TRUE(logIs(world, {info("Filter provider started", "FlowKillFilter")}));
//     EXPECT_TRUE(holdsForSeeds(1000, [](World& world) { ... }));
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

#include "Platform/Simulated/Exploration.h"
#include "Platform/Simulated/World.h"

namespace platform::simulated {

inline testing::AssertionResult linesAre(const std::vector<LogLine>& actual,
                                         const std::vector<ExpectedLine>& expected) {
    const auto text = differences(expected, actual);
    if (text.empty()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "the log differs (- missing, + not expected):\n" << text;
}

// The log since the start or since the last of these calls consists of exactly these lines, or,
// with a category, its lines of that category do. Takes the whole log.
inline testing::AssertionResult logIs(World& world, const std::vector<ExpectedLine>& expected,
                                      std::string_view category = {}) {
    return linesAre(world.takeLog(category), expected);
}

// These lines are in the log in this order, others between them or not. Leaves the log as it is.
inline testing::AssertionResult logHolds(const World& world,
                                         const std::vector<ExpectedLine>& expected) {
    const auto lines = world.log();
    auto next = expected.begin();
    for (const auto& line : lines)
        if (next != expected.end() && next->matches(line)) ++next;
    if (next == expected.end()) return testing::AssertionSuccess();
    auto failure = testing::AssertionFailure() << "not in the log (in this order): " << *next;
    for (const auto& line : lines) failure << "\n    " << line;
    return failure;
}

// A sanitizer makes a story five to ten times as long, and looks for faults that few seeds show.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint64_t shareOfSeeds = 5;
#else
constexpr std::uint64_t shareOfSeeds = 1;
#endif
constexpr std::uint64_t fewestSeeds = 4;

// Plays the story with so many seeds, under a sanitizer with a fifth of them but at least four, each with a
// world of its own and in a process of its own or, where the story leaves the coordinator as it found it,
// some in each. The environment may ask for another number (SEEDS=n). A breach of contract, a failed
// expectation and a crash fail a seed.
inline testing::AssertionResult holdsForSeeds(std::uint64_t seeds,
                                              const std::function<void(World&)>& story,
                                              Options options = {.order = Order::drawn},
                                              std::uint64_t seedsPerProcess = 1) {
    Exploration exploration;
    exploration.seedsPerProcess = seedsPerProcess;
    exploration.seeds = seedsFromEnvironment().value_or(
        std::max(seeds / shareOfSeeds, std::min(seeds, fewestSeeds)));
    const auto failed = explore(exploration, [&](std::uint64_t seed) {
        options.seed = seed;
        World world(options);
        story(world);
        return !testing::Test::HasFailure();
    });
    if (!failed) return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "seed " << failed->seed << " fails: " << failed->how
           << "\nrepeat it with SEED=" << failed->seed << " in the environment; it printed:\n"
           << failed->output;
}

}  // namespace platform::simulated
