#include "Platform/Linux/HostChannel/Questions.h"

#include <string>
#include <utility>

#include "Platform/Linux/Attribution/FlowOwner.h"
#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"

namespace platform {

namespace {

constexpr int mostAncestors = 16;

std::string textUnder(const JSONObject& object, std::string_view key) {
    const auto found = object.find(key);
    const auto* text = found == object.end() ? nullptr : found->second.as<std::string>();
    return text ? *text : "";
}

std::int64_t numberUnder(const JSONObject& object, std::string_view key) {
    const auto found = object.find(key);
    const auto* number = found == object.end() ? nullptr : found->second.as<std::int64_t>();
    return number ? *number : 0;
}

JSONObject errorWith(std::string text) { return {{"error", std::move(text)}}; }

const char* wordFor(ProcessKind kind) {
    switch (kind) {
        case ProcessKind::bundle:
            return "bundle";
        case ProcessKind::installedApplication:
            return "installed";
        case ProcessKind::desktopApplication:
            return "desktop";
        case ProcessKind::applicationPart:
            return "part";
        case ProcessKind::ordinaryProgram:
            break;
    }
    return "program";
}

JSONObject documentOf(const Process& process) {
    return {{"pid", std::int64_t{process.pid}},
            {"account", std::int64_t{process.status.effectiveUserId}},
            {"executable", textOfPath(process.executable)},
            {"identifier", process.signingIdentifier},
            {"kind", wordFor(process.kind)},
            {"isTerminal", process.isTerminal}};
}

JSONArray ancestorsOf(const Process& process) {
    JSONArray ancestors;
    auto pid = process.status.parentPid;
    for (int count = 0; count < mostAncestors && pid > 1; ++count) {
        const auto parent = ProcessTable::shared().examine(pid);
        if (!parent) break;
        ancestors.emplace_back(documentOf(*parent));
        pid = parent->status.parentPid;
    }
    return ancestors;
}

}  // namespace

Questions::Questions(ExplainFlow explainFlow)
    : explain(std::move(explainFlow)),
      socket(
          places::questionSocket,
          [] { return prepareSharedFolder(places::runtimeFolder, FolderAccess::everyoneMayRead); },
          [this](const Data& request, Completion<std::optional<Data>> completion) {
              completion(reply(request));
          },
          {}) {}

std::optional<Data> Questions::reply(const Data& request) const {
    const auto document = parseJSON(request.bytes().value_or(""));
    const auto* value = std::get_if<JSONValue>(&document);
    const auto* question = value ? value->as<JSONObject>() : nullptr;
    JSONWriter writer;
    writer.value(question ? answer(*question) : errorWith("That is no question."));
    auto text = writer.finish();
    return text ? std::optional<Data>(Data(std::move(*text))) : std::nullopt;
}

JSONObject Questions::answer(const JSONObject& question) const {
    const auto kind = textUnder(question, "question");
    if (kind == "why") return why(question);
    return errorWith("This daemon does not know the question \"" + kind +
                     "\". Restart it after an upgrade: systemctl restart vantryd");
}

JSONObject Questions::why(const JSONObject& question) const {
    JSONObject answer;
    FlowQuestion asked{
        .metaData = {textUnder(question, "identifier"), std::nullopt},
        .remote = {textUnder(question, "host"), std::to_string(numberUnder(question, "port"))},
        .isDatagram = textUnder(question, "protocol") == "udp"};
    if (const auto pid = static_cast<pid_t>(numberUnder(question, "pid")); pid > 0) {
        const auto process = ProcessTable::shared().examine(pid);
        if (!process) return errorWith("There is no process " + std::to_string(pid) + ".");
        answer["process"] = documentOf(*process);
        answer["ancestors"] = ancestorsOf(*process);
        asked.metaData = metaDataOf(ownerOfProcess(*process));
    }
    answer["explanation"] = explain(asked);
    return answer;
}

}  // namespace platform
