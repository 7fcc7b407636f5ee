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
    if (word && *word == "fetch") return fetch();
    if (word && *word == "stop") {
        Recorder::shared().stop();
        return {};
    }
    return {{"error", "A recording is started, fetched or stopped."}};
}

JSONObject RecordQuestions::start(bool isVerbatim) {
    if (!Recorder::shared().start())
        return {{"error",
                 "A recording is under way. End it, or wait ten seconds if its tool was killed."}};
    pseudonyms.reset();
    if (!isVerbatim) pseudonyms.emplace();
    return {};
}

JSONObject RecordQuestions::fetch() {
    auto piece = Recorder::shared().fetch();
    if (pseudonyms) piece.lines = pseudonyms->replaced(piece.lines);
    return {{"lines", std::move(piece.lines)},
            {"lost", static_cast<std::int64_t>(piece.lost)},
            {"isOver", piece.isOver}};
}

}  // namespace platform::recording
