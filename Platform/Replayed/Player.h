// Plays a recording against the core that it is linked with, call for call, and compares: what flows and
// messages are answered, what is done with each direct connection, and what else is asked of the platform.
// Calls that overlapped in the recording are played one after the other, so two things may rightly differ, and
// are counted instead: a flow that was asked about while the rules or the network changed is answered as they
// were before, after or at any step between, and the end of a connection that two threads worked at bears the
// error of either. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Platform/NEProvider.h"
#include "Platform/Replayed/Recording.h"

namespace platform::replayed {

struct Difference {
    std::uint64_t number = 0;  // of the call, a flow's above all
    std::string text;
    bool isOfFlow = true;
};

struct Result {
    std::size_t calls = 0, flows = 0, sessions = 0;
    std::size_t answeredDuringChange = 0, endedByTwo = 0, notAskedFor = 0, unanswered = 0;
    std::vector<Difference> differences;
    std::set<std::string> breaches;
};

class Player {
public:
    explicit Player(const Recording& toPlay);

    // With a number, only up to the call of that number.
    Result play(std::optional<std::uint64_t> until = std::nullopt);
    // What the core would say of this flow now, in words and names.
    std::string explanationOf(const RecordedCall& flow) const;

private:
    using Answers = std::set<std::string>;

    void perform(const RecordedCall& call);
    void performChange(const RecordedCall& change);
    bool performOnProvider(const RecordedCall& call);
    bool performOnSession(const RecordedCall& call);
    bool performCompletion(const RecordedCall& call);
    std::string offerToProxy(const RecordedCall& call);
    void performMessage(const RecordedCall& call);
    std::string answerNow(const RecordedCall& call) const;
    JSONObject explain(const RecordedCall& call) const;
    void noteActions(const RecordedCall& call);

    void compareAnswers();
    void compareReply(const RecordedCall& message, const std::optional<std::string>& reply);
    void compareAsks(const RecordedCall& call);
    void compareSessions();
    bool isEndedBesideHoldingBack(std::uint64_t number) const;
    void checkEnds() const;

    const Recording& recording;
    std::shared_ptr<NETransparentProxyProvider> proxy;
    std::shared_ptr<NEFilterDataProvider> filter;
    std::map<std::uint64_t, std::string> given;  // by flow: the core's answer
    std::map<std::uint64_t, Answers> alsoRight;  // before, during or after a change that overlapped
    std::set<std::string, std::less<>> tokensOfFilter;  // whose names it may remember
    std::map<std::uint64_t, std::vector<std::string>> recordedActions;
    std::map<std::uint64_t, std::vector<const RecordedCall*>> touching;
    std::map<std::uint64_t, const RecordedCall*> heldBackIn, endedIn;  // as recorded, by flow
    std::set<std::uint64_t> begunHere;
    Result result;
};

}  // namespace platform::replayed
