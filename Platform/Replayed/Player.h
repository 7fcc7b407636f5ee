// Plays a recording against the core that it is linked with, call for call, and compares: what flows are
// answered, and what is done with each direct connection. Calls that overlapped in the recording are played
// one after the other, so two things may rightly differ, and are counted instead: a flow that was asked about
// while the rules or the network changed is answered as they were before, after or at any step between, and the
// end of a connection that two threads worked at bears the error of either. One thread.
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
    std::uint64_t number = 0;  // of the flow
    std::string text;
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
    std::string answerNow(const RecordedCall& call) const;
    JSONObject explain(const RecordedCall& call) const;

    void compareAnswers(Result& result) const;
    void compareSessions(Result& result) const;
    void checkEnds() const;

    const Recording& recording;
    std::shared_ptr<NETransparentProxyProvider> proxy;
    std::shared_ptr<NEFilterDataProvider> filter;
    std::map<std::uint64_t, std::string> given;  // by flow: the core's answer
    std::map<std::uint64_t, Answers> alsoRight;  // before, during or after a change that overlapped
    std::set<std::string, std::less<>> tokensOfFilter;  // whose names it may remember
    std::map<std::uint64_t, std::vector<std::string>> recordedActions;
    std::map<std::uint64_t, std::vector<const RecordedCall*>> touching;
    std::set<std::uint64_t> begunHere, heldBack;
    std::size_t notAskedFor = 0;
};

}  // namespace platform::replayed
