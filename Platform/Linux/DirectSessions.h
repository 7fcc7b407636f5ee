// Remembers the direct connections of applications, whichever way they are carried, for the person who asks
// about them: those that live, and how the latest ones that are over went. What the providers do never
// depends on it.
//
//   begun ──ready──► open ──gone──► ended
//     │
//     └──failed, or gone before it was ready──► failed
//
// Any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Platform/Common/Mutex.h"
#include "Platform/Foundation.h"
#include "Platform/Linux/Attribution/FlowTuple.h"
#include "Platform/Network.h"

namespace platform {

struct DirectSession {
    enum class Phase { begun, open, ended, failed };

    std::string identifier;  // that the flow is signed with
    FlowTuple flow;
    Date begun = Date::now();
    Phase phase = Phase::begun;
    std::string error{};  // of one that failed; empty if it was given up
};

class DirectSessions {
public:
    static DirectSessions& shared();

    // A flow that the calling thread is offering to the proxy, for as long as this lives: a connection that
    // gets its handler meanwhile is the flow's.
    class Offer {
    public:
        Offer(const std::string& identifier, const FlowTuple& flow);
        ~Offer();
        Offer(const Offer&) = delete;
        Offer& operator=(const Offer&) = delete;

    private:
        friend class DirectSessions;
        const std::string& identifier;
        const FlowTuple& flow;
        const Offer* const before;
        static inline thread_local const Offer* current = nullptr;
    };

    using StateHandler = std::function<void(const NWConnection::State&)>;
    // The handler itself, or one that also notes what it is told, and that the connection is gone when
    // it is dropped.
    static StateHandler following(StateHandler handler);

    // The living ones, and then those that are over, the latest last.
    std::vector<DirectSession> list() const;

private:
    class Follower;

    std::uint64_t begin(DirectSession session);
    void tell(std::uint64_t number, const NWConnection::State& state);
    void end(std::uint64_t number);

    mutable Mutex lock;
    std::uint64_t lastNumber GUARDED_BY(lock) = 0;
    std::map<std::uint64_t, DirectSession> living GUARDED_BY(lock);
    std::deque<DirectSession> over GUARDED_BY(lock);
};

}  // namespace platform
