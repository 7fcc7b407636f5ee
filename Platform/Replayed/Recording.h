// A recording of what crossed the seam, as it lies in its file: the platform's calls into the core in the
// order in which they take effect, each with what the core asked meanwhile. Values; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Platform/Common/RecordedFields.h"

namespace platform::replayed {

struct RecordedCall {
    // What was counted at its beginning and at its end: two calls whose spans meet overlapped.
    std::uint64_t number = 0;
    std::uint64_t end = 0;
    std::int64_t begun = 0;  // in microseconds
    std::string name;
    recorded::Line with, answered;
    std::vector<recorded::Line> asked;
    bool isOfPast = false;  // from before the recording, to make the core's state

    // The part of its span in which it may change what flows are answered; empty where it changes nothing.
    struct Span {
        std::uint64_t begin = 0;
        std::uint64_t end = 0;
    };
    Span ofChange{};
    // Where it is played: at a number, before (0) or after (2) what else takes effect there.
    std::pair<std::uint64_t, int> place;

    bool isFlow() const {
        return name == "proxyFlow" || name == "filterFlow" || name == "data" || name == "explain";
    }
    bool isChange() const { return ofChange.end != 0; }
    bool overlaps(const Span& span) const { return number <= span.end && end >= span.begin; }
};

struct Recording {
    std::vector<RecordedCall> calls;
    std::uint64_t stateCallsDropped = 0;
};

// Or why it cannot be read.
std::variant<Recording, std::string> readRecording(const std::string& path);
std::variant<Recording, std::string> recordingIn(std::string_view text);

}  // namespace platform::replayed
