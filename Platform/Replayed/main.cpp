// replay FILE [--why N] [--log]: plays a recording of `vantryctl record` against the core.

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Logging.h"
#include "Platform/Replayed/Machine.h"
#include "Platform/Replayed/Player.h"

namespace {

using platform::replayed::Player;
using platform::replayed::RecordedCall;
using platform::replayed::Recording;
using platform::replayed::Result;

constexpr int exitWithDifferences = 1;
constexpr int exitWithoutRecording = 2;
constexpr std::size_t mostPrinted = 20;

struct Request {
    std::string file;
    std::optional<std::uint64_t> flow;
    bool isLogWanted = false;
    bool isUnderstood = true;
};

Request requestIn(int count, char** words) {
    Request request;
    for (int index = 1; index < count; ++index) {
        const std::string_view word = words[index];
        if (word == "--log") {
            request.isLogWanted = true;
        } else if (word == "--why" && index + 1 < count) {
            const std::string_view text = words[++index];
            std::uint64_t number = 0;
            std::from_chars(text.data(), text.data() + text.size(), number);
            request.flow = number;
        } else if (!word.starts_with('-') && request.file.empty()) {
            request.file = word;
        } else {
            request.isUnderstood = false;
        }
    }
    request.isUnderstood = request.isUnderstood && !request.file.empty();
    return request;
}

void print(const RecordedCall& call) {
    std::cout << call.name;
    for (const auto& field : call.with.fields)
        std::cout << ' ' << (field.value() ? field.text : "(none)");
    std::cout << " at " << static_cast<double>(call.begun) * 1e-6 << " s: recorded "
              << call.answered.at(0).text << '\n';
    for (const auto& line : call.asked) {
        std::cout << "  asked:";
        for (const auto& field : line.fields)
            std::cout << ' ' << (field.value() ? field.text.substr(0, 120) : "(none)");
        std::cout << '\n';
    }
}

int explainFlow(const Recording& recording, std::uint64_t number) {
    const auto call = std::ranges::find(recording.calls, number, &RecordedCall::number);
    if (call == recording.calls.end() || !call->isFlow()) {
        std::cerr << "There is no flow " << number << " in the recording.\n";
        return exitWithoutRecording;
    }
    Player player(recording);
    const auto result = player.play(number);
    print(*call);
    for (const auto& difference : result.differences)
        if (difference.number == number) std::cout << difference.text << '\n';
    std::cout << player.explanationOf(*call) << '\n';
    return EXIT_SUCCESS;
}

int report(const Result& result, const Recording& recording) {
    std::cout << result.calls << " calls: " << result.flows << " answers about flows, "
              << result.sessions << " direct connections, " << result.answeredDuringChange
              << " answered during a change, " << result.endedByTwo << " ended by two at once\n";
    if (recording.stateCallsDropped > 0)
        std::cout << recording.stateCallsDropped
                  << " changes of before the recording were not kept.\n";
    if (result.notAskedFor > 0)
        std::cout << result.notAskedFor << " completions came that the core did not wait for.\n";
    if (result.unanswered > 0)
        std::cout << result.unanswered << " questions of the core have no answer recorded.\n";
    for (const auto& breach : result.breaches) std::cout << "broken: " << breach << '\n';
    for (std::size_t index = 0; index < std::min(mostPrinted, result.differences.size()); ++index)
        std::cout << (result.differences[index].isOfFlow ? "flow " : "call ")
                  << result.differences[index].number << ", " << result.differences[index].text
                  << '\n';
    std::cout << result.differences.size() << " differences, " << result.breaches.size()
              << " promises broken\n";
    return result.differences.empty() && result.breaches.empty() ? EXIT_SUCCESS
                                                                 : exitWithDifferences;
}

}  // namespace

int main(int count, char** words) {
    const auto request = requestIn(count, words);
    if (!request.isUnderstood) {
        std::cerr << "replay FILE [--why NUMBER-OF-FLOW] [--log]\n";
        return exitWithoutRecording;
    }
    platform::replayed::Machine::shared().isLogWanted = request.isLogWanted;
    if (request.isLogWanted) platform::Logger::setLowestLevel(platform::LogLevel::debug);
    const auto read = platform::replayed::readRecording(request.file);
    if (const auto* failure = std::get_if<std::string>(&read)) {
        std::cerr << *failure << '\n';
        return exitWithoutRecording;
    }
    const auto& recording = std::get<Recording>(read);
    if (request.flow) return explainFlow(recording, *request.flow);
    return report(Player(recording).play(), recording);
}
