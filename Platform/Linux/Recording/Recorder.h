// Writes down what crosses the seam between the platform and the core, while somebody asks for it: which
// calls the platform makes into the core and what is answered, what the core asks of the platform meanwhile,
// in which order and when. `replay` plays it (docs/architecture.md has the table of what is recorded).
//
//   idle ──start──► recording ──stop, or not fetched for ten seconds──► idle
//
// A call is one piece of text, written into its thread's own room and handed over when it ends, so that what
// goes on at the same time does not mix. Those few that make the core's state (start, rules, network, settings)
// are kept also while idle, the latest of them: a recording begins with them. Any thread; while idle a flow
// costs one load for each call.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Common/Mutex.h"
#include "Platform/Common/RecordedFields.h"
#include "Platform/Common/StringHash.h"
#include "Platform/Foundation.h"

namespace platform::recording {

class Recorder {
public:
    static Recorder& shared();
    static bool isRecording() { return recording.load(std::memory_order_relaxed); }

    // The new recording's number; null if one is under way.
    std::optional<std::int64_t> start();
    // False if the recording of this number had ended before.
    bool stop(std::int64_t number);
    // What has come since the last time, in whole calls, and how many calls found no room. Nothing of a recording
    // that others have begun since.
    struct Piece {
        std::string lines;
        std::uint64_t lost = 0;
        bool isOver = true;
    };
    Piece fetch(std::int64_t number);
    // What was fetched and is no longer needed gives its room to what comes.
    void giveBack(std::string lines);

    // A call's side.
    static std::uint64_t nextNumber() { return ++lastNumber; }
    static std::int64_t microseconds();
    void take(std::string_view lines, bool isOfState, std::int64_t begun);
    // Whether a program of this token is new to the recording.
    bool isNews(const Data& auditToken);

private:
    void keep(std::string lines) REQUIRES(lock);
    void endIfForgotten(std::int64_t now) REQUIRES(lock);
    void freeRoom() REQUIRES(lock);

    static inline std::atomic<bool> recording = false;
    static inline std::atomic<std::uint64_t> lastNumber = 0;

    Mutex lock;
    std::int64_t present GUARDED_BY(lock) = 0;  // the latest recording's number
    std::deque<std::string> stateCalls GUARDED_BY(lock);
    std::size_t stateBytes GUARDED_BY(lock) = 0;
    std::uint64_t stateCallsDropped GUARDED_BY(lock) = 0;
    std::string waiting GUARDED_BY(lock), room GUARDED_BY(lock);
    std::uint64_t lost GUARDED_BY(lock) = 0;
    StringSet knownTokens GUARDED_BY(lock);
    std::int64_t lastFetch GUARDED_BY(lock) = 0;  // in microseconds
};

// A call of the platform into the core, as long as this lives; what the thread asks of the platform
// meanwhile belongs to it. False where it isn't written down. What it comes with is written before anything else.
class Call {
public:
    enum class Kind { ofFlow, ofState };

    Call(Kind kindOfCall, std::string_view name);
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    explicit operator bool() const { return isWritten; }
    std::uint64_t number() const { return ownNumber; }
    int nextWork() { return works++; }
    recorded::Fields& with() { return text; }
    // Begins a line for what the core answers, and for something that it asks of the platform.
    recorded::Fields& answered() { return text.line('='); }
    recorded::Fields& asked(std::string_view name) { return text.line('<').word(name); }

    // Of the calling thread; null if there is none, or it isn't written down.
    static Call* current() { return present && present->isWritten ? present : nullptr; }

private:
    const Kind kind;
    const bool isWritten;
    std::uint64_t ownNumber = 0;
    int works = 0;
    std::int64_t begun = 0;
    recorded::Fields text;
    Call* const around;
    static inline thread_local Call* present = nullptr;
    static inline thread_local recorded::Fields room;  // for the next text
};

// An error by its number; its words are not recorded.
void addError(recorded::Fields& fields, const std::optional<NSError>& error);

}  // namespace platform::recording
