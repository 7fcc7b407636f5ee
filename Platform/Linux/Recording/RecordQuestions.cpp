#include "Platform/Linux/Recording/RecordQuestions.h"

#include <utility>

#include "Platform/Linux/Recording/Recorder.h"

namespace platform::recording {

JSONObject RecordQuestions::answer(const JSONObject& question) {
    const auto found = question.find("do");
    const auto* word = found == question.end() ? nullptr : found->second.as<std::string>();
    const auto verbatim = question.find("verbatim");
    const auto* isVerbatim = verbatim == question.end() ? nullptr : verbatim->second.as<bool>();
    if (word && *word == "start") return start(isVerbatim && *isVerbatim);
    const auto recording = question.find("number");
    const auto* number =
        recording == question.end() ? nullptr : recording->second.as<std::int64_t>();
    if (word && *word == "fetch" && number) return fetch(*number);
    if (word && *word == "stop" && number) return {{"wasOver", !Recorder::shared().stop(*number)}};
    return {{"error", "A recording is started, fetched or stopped."}};
}

JSONObject RecordQuestions::start(bool isVerbatim) {
    const auto number = Recorder::shared().start();
    if (!number)
        return {{"error",
                 "A recording is under way. End it, or wait ten seconds if its tool was killed."}};
    pseudonyms.reset();
    if (!isVerbatim) pseudonyms.emplace();
    return {{"number", *number}};
}

JSONObject RecordQuestions::fetch(std::int64_t number) {
    auto piece = Recorder::shared().fetch(number);
    if (pseudonyms) {
        auto replaced = pseudonyms->replaced(piece.lines);
        piece.lines.swap(replaced);
        Recorder::shared().giveBack(std::move(replaced));
    }
    JSONObject answer{{"lost", static_cast<std::int64_t>(piece.lost)}, {"isOver", piece.isOver}};
    answer["lines"] = std::move(piece.lines);
    return answer;
}

}  // namespace platform::recording
