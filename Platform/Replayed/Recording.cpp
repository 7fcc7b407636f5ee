#include "Platform/Replayed/Recording.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fstream>
#include <iterator>

namespace platform::replayed {

namespace {

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

// When it asked for the rules of the proxy to be replaced; 0 for not at all.
std::uint64_t numberOfFlush(const RecordedCall& call) {
    const auto line = std::ranges::find_if(
        call.asked, [](const auto& each) { return each.at(0).text == "proxySettings"; });
    return line == call.asked.end() ? 0 : static_cast<std::uint64_t>(line->at(1).number());
}

// A flush that is asked for while one is under way is dropped. So the end of one comes before a change that
// overlapped with it and asked for another, and after one that did not.
void placeBeside(RecordedCall& completion, const std::vector<const RecordedCall*>& notifications) {
    const bool isEnd = numberOfFlush(completion) == 0;
    for (const auto* change : notifications) {
        if (!completion.overlaps({change->number, change->end})) continue;
        const auto flush = numberOfFlush(*change);
        if (flush > completion.number) {
            completion.place = std::min(completion.place, {change->ofChange.begin, 0});
            return;
        }
        if (flush == 0 && isEnd)
            completion.place = std::max(completion.place, {change->ofChange.begin, 2});
    }
}

void placeAll(std::vector<RecordedCall>& calls) {
    std::vector<const RecordedCall*> notifications;
    for (auto& call : calls) {
        call.ofChange = spanOfChange(call);
        call.place = {call.isChange() ? call.ofChange.begin : call.number, 1};
        if (call.name == "notification") notifications.push_back(&call);
    }
    std::ranges::sort(notifications, {}, [](const auto* each) { return each->place; });
    for (auto& call : calls)
        if (call.name == "proxySettings") placeBeside(call, notifications);
}

// Null if its format can be played.
std::optional<std::string> faultOfHead(std::string_view text) {
    if (!text.starts_with(recorded::head)) return "This is no recording of vantryctl record.";
    text.remove_prefix(recorded::head.size());
    int format = 0;
    std::from_chars(text.data(), text.data() + text.size(), format);
    if (format == recorded::format) return std::nullopt;
    return "The recording has format " + std::to_string(format) + ", and this replay plays " +
           std::to_string(recorded::format) +
           ". Play it with the replay of the version that recorded it, or record again.";
}

// Number, time and name, and then what it came with.
RecordedCall callIn(recorded::Line line) {
    RecordedCall call;
    call.number = static_cast<std::uint64_t>(line.at(0).number());
    call.begun = line.at(1).number();
    call.name = line.at(2).text;
    line.fields.erase(line.fields.begin(),
                      line.fields.begin() + static_cast<std::ptrdiff_t>(
                                                std::min<std::size_t>(3, line.fields.size())));
    call.with = std::move(line);
    return call;
}

void addTo(RecordedCall& call, recorded::Line line) {
    if (line.direction == '<')
        call.asked.push_back(std::move(line));
    else if (line.direction == '=')
        call.answered = std::move(line);
    else
        call.end = static_cast<std::uint64_t>(line.at(0).number());
}

}  // namespace

std::variant<Recording, std::string> recordingIn(std::string_view text) {
    if (auto fault = faultOfHead(text)) return std::move(*fault);
    Recording recording;
    bool isOfPast = true;
    std::size_t number = 0;
    while (!text.empty()) {
        const auto end = text.find('\n');
        // The last line of a file that ran full is only a part of one, as is the last call.
        if (end == std::string_view::npos) break;
        const auto row = text.substr(0, end);
        text.remove_prefix(end + 1);
        if (++number == 1) {
            const auto count = row.substr(row.rfind(' ') + 1);
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
            addTo(recording.calls.back(), std::move(*line));
            continue;
        }
        recording.calls.push_back(callIn(std::move(*line)));
        recording.calls.back().isOfPast = isOfPast;
    }
    if (!recording.calls.empty() && recording.calls.back().end == 0) recording.calls.pop_back();
    placeAll(recording.calls);
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
