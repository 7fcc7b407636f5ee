// What the simulated platform watches on the core's side. A breach of a contract ends the test's
// process with a message, the seed and the events that led to it, at the place where it happens;
// a test of the platform itself may collect breaches instead.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace platform::simulated {

// Reports that the core (or the test) did what a contract forbids. Any thread.
void breach(std::string what);

// Called at the head of each operation of the seam: a breach if this thread holds an NSLock that
// guards fields. Log lines, clocks and random identifiers are exempt.
void checkPlatformCall(std::string_view operation);
// Called when an event or a call into the core has returned.
void checkNoLockIsHeld(std::string_view afterWhat);

// Whether breaches are kept for `takeBreaches` instead of ending the process.
void collectBreaches(bool collect);
std::vector<std::string> takeBreaches();

// Put into a completion that the platform hands to the core: a breach if the completion is let go
// without having run.
class MustRun {
public:
    explicit MustRun(std::string nameOfCall) : name(std::move(nameOfCall)) {}
    MustRun(MustRun&&) = default;
    MustRun& operator=(MustRun&&) = delete;
    ~MustRun();

    // The completion runs.
    void runs();

private:
    struct Armed {};
    std::string name;
    std::unique_ptr<Armed> armed = std::make_unique<Armed>();
};

}  // namespace platform::simulated
