#include "Platform/Replayed/Recording.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <iterator>

namespace platform::replayed {

namespace {

constexpr std::string_view head = "vantry-recording 1 ";
constexpr std::array<std::string_view, 10> changes{
    "startFilter", "startProxy", "stopFilter", "stopProxy", "notification",
    "path",        "tunnels",    "wake",       "sleep",     "message"};

// Flows answered by the old rules and by the new ones lie to both sides of what a change says of itself.
RecordedCall::Span spanOfChange(const RecordedCall& call) {
    if (std::ranges::find(changes, call.name) == changes.end()) return {};
    RecordedCall::Span span{call.number, call.end};
    for (const auto& line : call.asked) {
        if (line.at(0).text != "rulesChanging") continue;
        const auto number = static_cast<std::uint64_t>(line.at(1).number());
        if (line.at(2).number() == 1)
            span.begin = number;
        else
            span.end = number;
    }
    return span;
}

// Number, end, time and name; then what it came with; after the bar what was answered.
RecordedCall callIn(const recorded::Line& line) {
    RecordedCall call;
    call.number = static_cast<std::uint64_t>(line.at(0).number());
    call.end = static_cast<std::uint64_t>(line.at(1).number());
    call.begun = line.at(2).number();
    call.name = line.at(3).text;
    bool isAnswer = false;
    for (std::size_t index = 4; index < line.fields.size(); ++index) {
        const auto& field = line.fields[index];
        if (!isAnswer && field.kind == recorded::FieldKind::plain && field.text == "|")
            isAnswer = true;
        else
            (isAnswer ? call.answered : call.with).fields.push_back(field);
    }
    return call;
}

}  // namespace

std::variant<Recording, std::string> recordingIn(std::string_view text) {
    if (!text.starts_with(head)) return "This is no recording of vantryctl record.";
    Recording recording;
    bool isOfPast = true;
    std::size_t number = 0;
    while (!text.empty()) {
        const auto end = text.find('\n');
        // The last line of a file that ran full is only a part of one.
        if (end == std::string_view::npos) break;
        const auto row = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (++number == 1) {
            const auto count = row.substr(head.size());
            std::from_chars(count.data(), count.data() + count.size(), recording.stateCallsDropped);
            continue;
        }
        if (row == "recording") {
            isOfPast = false;
            continue;
        }
        auto line = recorded::readLine(row);
        const bool isCall = line && line->direction == '>';
        if (!line || (!isCall && recording.calls.empty()))
            return "Line " + std::to_string(number) + " cannot be read.";
        if (!isCall) {
            recording.calls.back().asked.push_back(std::move(*line));
            continue;
        }
        recording.calls.push_back(callIn(*line));
        recording.calls.back().isOfPast = isOfPast;
    }
    for (auto& call : recording.calls) call.ofChange = spanOfChange(call);
    std::ranges::stable_sort(recording.calls, {}, &RecordedCall::place);
    return recording;
}

std::variant<Recording, std::string> readRecording(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return path + " cannot be opened.";
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    return recordingIn(text);
}

}  // namespace platform::replayed
