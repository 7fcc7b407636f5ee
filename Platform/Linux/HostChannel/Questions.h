// The questions about this machine that the host application asks and the extension knows nothing of,
// on a socket of the platform's own. A question is one JSON object, its kind under "question"; the
// answer is one too, or has an "error" for a person.
//
//   {"question": "why", "pid": 1234, "host": "203.0.113.7", "port": 443, "protocol": "tcp"}
//   {"question": "why", "identifier": "org.example.mail", ...}     a program of it that runs on its own
//   -> {"process": {...}, "ancestors": [{...}, ...], "explanation": {... see Extension/FlowExplanation.h ...}}
//
//   {"question": "sessions"}
//   -> {"sessions": [{"identifier", "pid", "host", "port", "begun", "phase", "error", "sent", "received"}, ...]}
//   {"question": "applications"}
//   -> {"applications": [{"identifier", "rule", "route", "decidedBy", "connections": [...]}, ...]}
//
//   {"question": "refusals"}
//   -> {"refusals": [{"identifier", "decidedBy", "at"}, ...]}: whose flows were refused, the latest of each, in
//      milliseconds since 1970; a
//      program that is refused no longer is left out
//
//   {"question": "owner", "protocol", "source", "sourcePort", "host", "port", "interface"}
//   -> {"identifier", "route"}: of a flow that was just seen to leave; empty where no one can be named
//
//   {"question": "delivered"}
//   -> {}, once the notifications that were posted before it have been delivered: new flows go by the rules
//      that were written then
//
//   {"question": "record", ...}, see Platform/Linux/Recording/RecordQuestions.h
//
// A session is a direct connection, its phase "begun", "open", "ended" or "failed"; only living ones have
// bytes. A connection is one of TCP that is open or opening, as "id", "pid", "host", "port", "sent", "received"
// and "isDirect". Programs of the system are one application without an identifier.
//
// A process is told as "pid", "account", "executable", "identifier", "kind" ("bundle", "installed",
// "desktop", "part" or "program") and "isTerminal"; ancestors are the real ones, the nearest first.
#pragma once

#include <functional>
#include <optional>

#include "Platform/Common/Mutex.h"
#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/HostChannel/MessageSocket.h"
#include "Platform/Linux/Recording/RecordQuestions.h"
#include "Platform/NEProvider.h"

namespace platform {

class Questions {
public:
    // What the answers come from. Called on any thread.
    struct Sources {
        // What the providers would decide about such a flow.
        std::function<JSONObject(const FlowQuestion&)> explain;
        std::function<std::optional<FlowOwner>(const FlowTuple&)> ownerOf;
    };

    // Answers from here to the destructor, on a thread of its own.
    explicit Questions(Sources answersFrom);

    // The answer to one question, but for "delivered". Any thread.
    JSONObject answer(const JSONObject& question) const;

private:
    JSONObject why(const JSONObject& question) const;
    JSONObject sessions() const;
    JSONObject applications() const;
    JSONObject owner(const JSONObject& question) const;
    JSONObject refusals() const;
    JSONObject record(const JSONObject& question) const;
    void reply(const Data& request, Completion<std::optional<Data>> completion) const;

    const Sources sources;
    mutable Mutex recordLock;
    mutable recording::RecordQuestions recordQuestions GUARDED_BY(recordLock);
    MessageSocket socket;
};

}  // namespace platform
