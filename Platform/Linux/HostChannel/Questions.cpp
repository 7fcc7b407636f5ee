#include "Platform/Linux/HostChannel/Questions.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/Attribution/PathText.h"
#include "Platform/Linux/Attribution/ProcessTable.h"
#include "Platform/Linux/Attribution/SocketAccounts.h"
#include "Platform/Linux/DirectSessions.h"
#include "Platform/Linux/HostChannel/DeliveredPosts.h"
#include "Platform/Linux/HostChannel/FixedPlaces.h"
#include "Platform/Linux/HostChannel/SharedFolder.h"
#include "Platform/Linux/RefusedFlows.h"

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

std::optional<Data> dataOf(const JSONObject& answer) {
    JSONWriter writer;
    writer.value(answer);
    auto text = writer.finish();
    return text ? std::optional<Data>(Data(std::move(*text))) : std::nullopt;
}

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

std::string hostOf(const FlowTuple& flow) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    inet_ntop(flow.family, flow.destinationAddress.data(), text.data(), text.size());
    return text.data();
}

const char* wordFor(DirectSession::Phase phase) {
    switch (phase) {
        case DirectSession::Phase::begun:
            return "begun";
        case DirectSession::Phase::open:
            return "open";
        case DirectSession::Phase::ended:
            return "ended";
        case DirectSession::Phase::failed:
            break;
    }
    return "failed";
}

bool isLiving(const DirectSession& session) {
    return session.phase == DirectSession::Phase::begun ||
           session.phase == DirectSession::Phase::open;
}

// The two ends of a connection, which no other one has at the same time.
std::string keyOf(const FlowTuple& flow) {
    std::string key(flow.sourceAddress.begin(), flow.sourceAddress.end());
    key.append(flow.destinationAddress.begin(), flow.destinationAddress.end());
    for (const int number : {int{flow.sourcePort}, int{flow.destinationPort}, flow.family})
        key += ":" + std::to_string(number);
    return key;
}

JSONObject documentOf(const DirectSession& session) {
    return {{"identifier", session.identifier},
            {"host", hostOf(session.flow)},
            {"port", std::int64_t{session.flow.destinationPort}},
            {"begun", session.begun.secondsSince1970()},
            {"phase", wordFor(session.phase)},
            {"error", session.error}};
}

// A flow by its two ends; no value where they are no addresses.
std::optional<FlowTuple> flowIn(const JSONObject& question) {
    FlowTuple flow{.protocol = textUnder(question, "protocol") == "udp" ? IPPROTO_UDP : IPPROTO_TCP,
                   .sourcePort = static_cast<std::uint16_t>(numberUnder(question, "sourcePort")),
                   .destinationPort = static_cast<std::uint16_t>(numberUnder(question, "port")),
                   .outputInterface = static_cast<unsigned>(numberUnder(question, "interface"))};
    const auto source = textUnder(question, "source"), host = textUnder(question, "host");
    flow.family = host.find(':') == std::string::npos ? AF_INET : AF_INET6;
    const bool isWhole = inet_pton(flow.family, source.c_str(), flow.sourceAddress.data()) == 1 &&
                         inet_pton(flow.family, host.c_str(), flow.destinationAddress.data()) == 1;
    return isWhole ? std::optional(flow) : std::nullopt;
}

bool goToTheSamePlace(const FlowTuple& one, const FlowTuple& other) {
    return one.family == other.family && one.destinationAddress == other.destinationAddress &&
           one.destinationPort == other.destinationPort;
}

// Whether its first packet may have left just now: a connection that waits for a route leaves late.
bool mayHaveLeftNow(const DirectSession& session) {
    constexpr double longestWay = 10;
    return isLiving(session) || Date::now().timeIntervalSince(session.begun) < longestWay;
}

// The direct connection that a TCP flow on the wire is: it has the application's port, or is the second
// half of a relayed one, which is this process's own.
std::optional<DirectSession> sessionOf(const FlowTuple& flow, bool isOwn) {
    if (flow.protocol != IPPROTO_TCP) return std::nullopt;
    std::optional<DirectSession> latest;
    for (auto& session : DirectSessions::shared().list())
        if (goToTheSamePlace(session.flow, flow) && mayHaveLeftNow(session) &&
            (isOwn || session.flow.sourcePort == flow.sourcePort) &&
            (!latest || session.begun > latest->begun))
            latest = std::move(session);
    return latest;
}

// The inodes of the sockets that this process holds: a relayed connection has two of them.
std::set<std::uint32_t> ownSockets() {
    std::set<std::uint32_t> inodes;
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", none)) {
        struct stat status {};
        if (::stat(entry.path().c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
            inodes.insert(static_cast<std::uint32_t>(status.st_ino));
    }
    return inodes;
}

// What other processes than this one have open.
std::vector<SocketAccount> socketsOfOthers() {
    auto accounts = connectedSockets().value_or(std::vector<SocketAccount>{});
    const auto own = ownSockets();
    std::erase_if(accounts, [&](const auto& account) { return own.contains(account.inode); });
    return accounts;
}

}  // namespace

Questions::Questions(Sources answersFrom)
    : sources(std::move(answersFrom)),
      socket(
          places::questionSocket,
          [] { return prepareSharedFolder(places::runtimeFolder, FolderAccess::everyoneMayRead); },
          [this](const Data& request, Completion<std::optional<Data>> completion) {
              reply(request, std::move(completion));
          },
          {}) {}

void Questions::reply(const Data& request, Completion<std::optional<Data>> completion) const {
    const auto document = parseJSON(request.bytes().value_or(""));
    const auto* value = std::get_if<JSONValue>(&document);
    const auto* question = value ? value->as<JSONObject>() : nullptr;
    if (!question) return completion(dataOf(errorWith("That is no question.")));
    if (textUnder(*question, "question") != "delivered")
        return completion(dataOf(answer(*question)));
    whenPostsAreDelivered(
        [completion = std::move(completion)]() mutable { completion(dataOf(JSONObject{})); });
}

JSONObject Questions::answer(const JSONObject& question) const {
    const auto kind = textUnder(question, "question");
    if (kind == "why") return why(question);
    if (kind == "sessions") return sessions();
    if (kind == "applications") return applications();
    if (kind == "owner") return owner(question);
    if (kind == "refusals") return refusals();
    if (kind == "record") return record(question);
    return errorWith("This daemon does not know the question \"" + kind +
                     "\". Restart it after an upgrade: systemctl restart vantryd");
}

JSONObject Questions::record(const JSONObject& question) const {
    const MutexGuard guard(recordLock);
    return recordQuestions.answer(question);
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
    answer["explanation"] = sources.explain(asked);
    return answer;
}

JSONObject Questions::sessions() const {
    std::map<std::string, SocketAccount> accounts;
    for (const auto& account : socketsOfOthers()) accounts.emplace(keyOf(account.flow), account);
    JSONArray list;
    for (const auto& session : DirectSessions::shared().list()) {
        auto document = documentOf(session);
        const auto found = accounts.find(keyOf(session.flow));
        if (isLiving(session) && found != accounts.end()) {
            document["sent"] = static_cast<std::int64_t>(found->second.bytesSent);
            document["received"] = static_cast<std::int64_t>(found->second.bytesReceived);
            if (const auto owner = sources.ownerOf(session.flow))
                document["pid"] = std::int64_t{owner->pid};
        }
        list.emplace_back(std::move(document));
    }
    return {{"sessions", std::move(list)}};
}

JSONObject Questions::owner(const JSONObject& question) const {
    const auto flow = flowIn(question);
    if (!flow) return errorWith("A flow has two addresses.");
    const auto owner = sources.ownerOf(*flow);
    const bool isUnnamed = !owner || owner->signingIdentifier.empty();
    if (const auto session = sessionOf(*flow, isUnnamed))
        return {{"identifier", session->identifier}, {"route", "direct"}};
    if (isUnnamed) return {};
    const auto explanation =
        sources.explain({.metaData = metaDataOf(*owner),
                         .remote = {hostOf(*flow), std::to_string(flow->destinationPort)},
                         .isDatagram = flow->protocol == IPPROTO_UDP});
    return {{"identifier", owner->signingIdentifier}, {"route", textUnder(explanation, "route")}};
}

// By the name that a rule or a block has to be given for.
JSONObject Questions::refusals() const {
    JSONArray list;
    for (const auto& refused : RefusedFlows::shared().list()) {
        const auto explanation = sources.explain(
            {.metaData = refused.metaData,
             .remote = {hostOf(refused.flow), std::to_string(refused.flow.destinationPort)},
             .isDatagram = refused.flow.protocol == IPPROTO_UDP});
        if (textUnder(explanation, "route") != "blocked") continue;
        auto name = textUnder(explanation, "blockOf");
        if (name.empty()) name = textUnder(explanation, "knownAs");
        list.emplace_back(
            JSONObject{{"identifier", std::move(name)},
                       {"decidedBy", textUnder(explanation, "decidedBy")},
                       {"at", static_cast<std::int64_t>(refused.at.secondsSince1970() * 1000)}});
    }
    return {{"refusals", std::move(list)}};
}

// By the name that the rules know each by, so that helpers count as their application.
JSONObject Questions::applications() const {
    std::set<std::string> direct;
    for (const auto& session : DirectSessions::shared().list())
        if (isLiving(session)) direct.insert(keyOf(session.flow));
    std::map<std::string, JSONObject> explanations;  // by signing identifier
    std::map<std::string, JSONObject> applications;
    std::map<std::string, JSONArray> connections;
    for (const auto& account : socketsOfOthers()) {
        const auto owner = sources.ownerOf(account.flow).value_or(FlowOwner{});
        auto [known, isNew] = explanations.try_emplace(owner.signingIdentifier);
        if (isNew && !owner.signingIdentifier.empty())
            known->second = sources.explain(
                {.metaData = metaDataOf(owner),
                 .remote = {hostOf(account.flow), std::to_string(account.flow.destinationPort)}});
        const auto& explanation = known->second;
        auto name = textUnder(explanation, "knownAs");
        if (name.empty()) name = owner.signingIdentifier;
        applications.try_emplace(name,
                                 JSONObject{{"identifier", name},
                                            {"rule", textUnder(explanation, "rule")},
                                            {"route", textUnder(explanation, "route")},
                                            {"decidedBy", textUnder(explanation, "decidedBy")}});
        connections[name].emplace_back(
            JSONObject{{"id", std::to_string(account.cookie)},
                       {"pid", std::int64_t{owner.pid}},
                       {"host", hostOf(account.flow)},
                       {"port", std::int64_t{account.flow.destinationPort}},
                       {"sent", static_cast<std::int64_t>(account.bytesSent)},
                       {"received", static_cast<std::int64_t>(account.bytesReceived)},
                       {"isDirect", direct.contains(keyOf(account.flow))}});
    }
    JSONArray list;
    for (auto& [name, application] : applications) {
        application["connections"] = std::move(connections[name]);
        list.emplace_back(std::move(application));
    }
    return {{"applications", std::move(list)}};
}

}  // namespace platform
