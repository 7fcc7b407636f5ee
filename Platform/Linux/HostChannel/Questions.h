// The questions about this machine that the host application asks and the extension knows nothing of,
// on a socket of the platform's own. A question is one JSON object, its kind under "question"; the
// answer is one too, or has an "error" for a person.
//
//   {"question": "why", "pid": 1234, "host": "203.0.113.7", "port": 443, "protocol": "tcp"}
//   {"question": "why", "identifier": "org.example.mail", ...}     a program of it that runs on its own
//   -> {"process": {...}, "ancestors": [{...}, ...], "explanation": {... see Extension/FlowExplanation.h ...}}
//
// A process is told as "pid", "account", "executable", "identifier", "kind" ("bundle", "installed",
// "desktop", "part" or "program") and "isTerminal"; ancestors are the real ones, the nearest first.
#pragma once

#include <functional>

#include "Platform/Linux/HostChannel/MessageSocket.h"
#include "Platform/NEProvider.h"

namespace platform {

// What the providers would decide about such a flow. Any thread.
using ExplainFlow = std::function<JSONObject(const FlowQuestion&)>;

class Questions {
public:
    // Answers from here to the destructor, on a thread of its own.
    explicit Questions(ExplainFlow explainFlow);

    // The answer to one question. Any thread.
    JSONObject answer(const JSONObject& question) const;

private:
    JSONObject why(const JSONObject& question) const;
    std::optional<Data> reply(const Data& request) const;

    const ExplainFlow explain;
    MessageSocket socket;
};

}  // namespace platform
