// The packet rules of steered connections, in a table of its own that belongs to no process: a
// connection goes on when the daemon dies, as its translation needs the rules and their nat chain.
//
//     leaving    route, output 200        a steered connection's packets get the uplink's mark and are routed
//                                         again: after the firewalls, which see them leave as the
//                                         application's route says; the first one gets its connection times
//                                         that outlast a silent server, and to port 21 the kernel's help
//                                         for active FTP, where the kernel has these
//     checking   filter, output 201       no content of what is held back; an error for what has no way
//     arriving   filter, prerouting -149  the mark for what comes back, so that a strict reverse-path filter
//                                         finds it right; no content of what is held back
//     naming     nat, postrouting 100     the uplink's address, where the source is another one
//     guarding   filter, postrouting 150  nothing with our mark leaves under a tunnel's address
//
// One thread.
#pragma once

#include <string>
#include <vector>

#include "Platform/Linux/Rules/RuleLanguage.h"
#include "Platform/Linux/Rules/SteeringMarks.h"
#include "Platform/Linux/Steering/Uplinks.h"

namespace platform::steering {

class SteeringTable {
public:
    // The table stays as it is when this goes.
    explicit SteeringTable(SteeringMarks steeringMarks) : marks(steeringMarks) {}

    // Puts in force what these uplinks need, in one step. False if the kernel refuses; `failure` then
    // has its words.
    bool install(const std::vector<Uplink>& uplinks);
    // True if the kernel has what was installed last.
    bool isComplete();
    bool wasInstalled() const { return !inForce.empty(); }
    void remove();

    const std::string& failure() const { return failureText; }

private:
    bool run(const std::string& commands);
    std::string listed();

    const SteeringMarks marks;
    // Kept: a table that has been removed is to be back at once.
    interception::RuleLanguage language;
    std::string output;
    std::string inForce;  // as the kernel shows it
    std::string failureText;
    bool hasSaidLack = false;
};

}  // namespace platform::steering
