// The machine of a recording: it answers the core's questions as they were answered, holds the completions
// that the core hands over until the recording has them run, and notes what the core does. Everything goes
// on in one thread, so no two things overlap.
//
// What a recording has no answer for is told as not there, and counted.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/DarwinNotifications.h"
#include "Platform/Dispatch.h"
#include "Platform/NEAppProxyFlow.h"
#include "Platform/NEProvider.h"
#include "Platform/Network.h"
#include "Platform/Replayed/Recording.h"

namespace platform::replayed {

// The two ends of a direct connection, by the number of its flow: what is outstanding, and what was done.
struct Session {
    Completion<std::optional<NSError>> opening, writing, sending;
    NEAppProxyTCPFlow::ReadCompletion reading;
    NWConnection::ReceiveCompletion receiving;
    std::function<void(const NWConnection::State&)> stateHandler;
    std::vector<std::string> actions;
    std::uint64_t heldBackIn = 0;  // the call; 0 for none
};

class Machine {
public:
    static Machine& shared();

    void load(const Recording& recording);
    // What is asked from here on belongs to this call.
    void begin(const RecordedCall& call);

    // The core's questions.
    const recorded::Line* answerTo(std::string_view question, std::string_view about);
    double now() const { return static_cast<double>(present ? present->begun : 0) * 1e-6; }

    // What the core does.
    Session& session(std::uint64_t number) { return sessions[number]; }
    std::uint64_t presentNumber() const { return present ? present->number : 0; }
    void act(std::uint64_t number, std::string action);
    void holdBack(std::uint64_t number);
    // Asks of the platform that belong to no connection, in their order since the present call began.
    void ask(std::string what);
    const std::vector<std::string>& asks() const { return asksInCall; }
    void later(double seconds, DispatchQueue::Work work);

    // Is called whenever the core has given up a lock over fields, so that what others may see of a call that
    // goes on can be seen; not from inside itself. Null for none.
    void watchSteps(std::function<void()> watcher) { stepWatcher = std::move(watcher); }
    void step();

    // What the recording has happen. False if the core never asked for it.
    bool runWork(std::uint64_t origin, int index);

    // Promises of the seam that the core has broken.
    void breach(const std::string& what);
    const std::set<std::string>& breaches() const { return broken; }
    std::size_t unanswered() const { return questionsWithoutAnswer.size(); }
    const std::map<std::uint64_t, Session>& allSessions() const { return sessions; }

    std::deque<Completion<std::optional<NSError>>> proxySettings, filterSettings;
    std::deque<NETunnelProviderManager::LoadCompletion> loads;
    std::vector<std::pair<void*, CFNotificationCallback>> observers;
    std::shared_ptr<std::function<void(const NWPath&)>> pathHandler;
    bool isLogWanted = false;

private:
    struct Work {
        std::uint64_t origin;
        int index;
        std::uint64_t ofSession;  // 0: of none
        DispatchQueue::Work work;
    };

    void learn(const RecordedCall& call);
    std::uint64_t sessionOfRecordedWork(std::uint64_t origin, int index) const;

    const RecordedCall* present = nullptr;
    std::map<std::string, recorded::Line, std::less<>> answers;
    std::set<std::string> questionsWithoutAnswer, broken;
    std::map<std::uint64_t, Session> sessions;
    std::map<std::uint64_t, const RecordedCall*> callsByNumber;
    std::deque<std::uint64_t> heldBackInCall;
    std::vector<std::string> asksInCall;
    int worksInCall = 0;
    std::vector<Work> works;
    std::function<void()> stepWatcher;
};

// Locks of the core that are held over fields; no call of the platform may come under one.
void checkNoFieldLockIsHeld(const char* call);

}  // namespace platform::replayed
