#include "Platform/Replayed/Player.h"

#include <algorithm>
#include <utility>

#include "Platform/Replayed/Machine.h"

namespace platform::replayed {

std::shared_ptr<NEAppProxyTCPFlow> flowOf(std::uint64_t number, NEFlowMetaData metaData,
                                          RemoteEndpoint remote);

namespace {

using recorded::Field;
using recorded::Line;

std::optional<NSError> errorIn(const Field& field) {
    if (!field.value()) return std::nullopt;
    return NSError{"recorded", static_cast<long>(field.number()), "as recorded"};
}

// Only the length of what passed is recorded.
std::optional<Data> dataIn(const Field& field) {
    if (!field.value()) return std::nullopt;
    return Data(nullptr, static_cast<std::size_t>(field.number()));
}

std::optional<Data> tokenIn(const Field& field) {
    if (!field.value()) return std::nullopt;
    return Data(recorded::bytesOfDigits(field.text));
}

RemoteEndpoint remoteIn(const Field& host, const Field& port) {
    if (!host.value()) return {};
    return NWHostEndpoint{host.text, port.text};
}

// Where a flow's line has its parts: all but the filter's also bear a name.
struct FlowParts {
    std::string identifier;
    std::optional<Data> token;
    std::string kind;
    RemoteEndpoint remote;

    explicit FlowParts(const RecordedCall& call) {
        const std::size_t first = call.name == "proxyFlow" || call.name == "explain" ? 1 : 0;
        if (first == 1) identifier = call.with.at(0).text;
        token = tokenIn(call.with.at(first));
        kind = call.with.at(first + 1).text;
        remote = remoteIn(call.with.at(first + 2), call.with.at(first + 3));
    }
    bool isDatagram() const { return kind == "udp" || kind == "2"; }
};

std::string textOf(const Line& line) {
    std::string text;
    for (const auto& field : line.fields)
        text.append(text.empty() ? "" : " ").append(field.value() ? field.text : "-");
    return text;
}

template <class Add, class Answer>
std::string textOf(Add add, const Answer& answer) {
    recorded::Fields fields;
    add(fields.line('<'), answer);
    return textOf(recorded::readLine(fields.text()).value_or(Line()));
}

std::string answerOf(NEFilterDataProvider& filter, const RecordedCall& call) {
    const FlowParts parts(call);
    const NEFilterSocketFlow flow(parts.token, parts.isDatagram() ? 2 : 1, parts.remote);
    if (call.name == "filterFlow")
        return textOf(recorded::addVerdict<NEFilterNewFlowVerdict>, filter.handleNewFlow(flow));
    return textOf(recorded::addVerdict<NEFilterDataVerdict>,
                  filter.handleOutboundData(flow, call.with.at(4).number(),
                                            dataIn(call.with.at(5)).value_or(Data())));
}

bool isOfFilter(const RecordedCall& call) {
    return call.name == "filterFlow" || call.name == "data";
}

// Where a flow of the filter bears its token.
const std::string& tokenText(const RecordedCall& call) { return call.with.at(0).text; }

NWPath pathIn(const Line& line) {
    NWPath path;
    for (std::size_t index = 0; index + 1 < line.fields.size(); index += 2)
        path.availableInterfaces.emplace_back(
            line.at(index).text,
            static_cast<NWInterface::InterfaceType>(line.at(index + 1).number()));
    return path;
}

std::string actionIn(const Line& line) {
    const auto& name = line.at(0).text;
    if (name == "connect")
        return "connect " + line.at(2).text + " " + line.at(3).text + " " + line.at(4).text;
    const bool bearsError = name == "closeRead" || name == "closeWrite";
    return bearsError && line.at(2).value() ? name + " " + line.at(2).text : name;
}

bool isAction(const Line& line) {
    const auto& name = line.at(0).text;
    return name == "connect" || name == "open" || name == "start" || name == "cancel" ||
           name == "holdBack" || name == "closeRead" || name == "closeWrite";
}

// What the core asked of the platform apart from questions and connections, as the machine has it; empty for
// anything else.
std::string askIn(const Line& line) {
    const auto& name = line.at(0).text;
    if (name == "tunnels") return name;
    if (name == "tunnelGuard") return name + " " + line.at(1).text + " " + line.at(2).text;
    // After the number of its moment.
    const bool isNumbered =
        name == "rulesChanging" || name == "proxySettings" || name == "filterSettings";
    return isNumbered ? name + " " + line.at(2).text : "";
}

std::vector<std::string> asksIn(const RecordedCall& call) {
    std::vector<std::string> asks;
    for (const auto& line : call.asked)
        if (auto ask = askIn(line); !ask.empty()) asks.push_back(std::move(ask));
    return asks;
}

// The words of a failure tell of what could not be read, which is replaced in a recording.
std::string comparableReply(const std::optional<std::string>& reply) {
    if (!reply) return "no reply";
    const auto document = NSJSONSerialization::JSONObjectWithData(*reply);
    const auto* object = document ? document->as<JSONObject>() : nullptr;
    return object && object->find("error") != object->end() ? "an error" : *reply;
}

bool isOfSession(const RecordedCall& call) {
    const auto& name = call.name;
    return name == "opened" || name == "flowRead" || name == "flowWritten" || name == "sent" ||
           name == "received" || name == "state";
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) text.append(text.empty() ? "" : ", ").append(word);
    return text.empty() ? "nothing" : text;
}

// What was done, whichever error it bore and in whichever order.
std::multiset<std::string> withoutErrors(const std::vector<std::string>& actions) {
    std::multiset<std::string> words;
    for (const auto& action : actions)
        words.insert(action.starts_with("close") ? action.substr(0, action.find(' ')) : action);
    return words;
}

std::multiset<std::string> without(const std::string& word, std::multiset<std::string> words) {
    words.erase(word);
    return words;
}

bool anyOverlap(const std::vector<const RecordedCall*>& calls) {
    for (std::size_t index = 1; index < calls.size(); ++index)
        if (calls[index]->overlaps({calls[index - 1]->number, calls[index - 1]->end})) return true;
    return false;
}

template <class Outstanding, class... Arguments>
bool complete(Outstanding& outstanding, Arguments&&... arguments) {
    if (!outstanding) return false;
    auto completion = std::move(outstanding);
    outstanding = {};
    completion(std::forward<Arguments>(arguments)...);
    return true;
}

template <class Queue>
auto takeFirst(Queue& queue) {
    auto first = std::move(queue.front());
    queue.pop_front();
    return first;
}

}  // namespace

Player::Player(const Recording& toPlay)
    : recording(toPlay),
      proxy(registeredProviders.makeProxyProvider()),
      filter(registeredProviders.makeFilterProvider()) {
    Machine::shared().load(recording);
}

Result Player::play(std::optional<std::uint64_t> until) {
    for (const auto& call : recording.calls) {
        if (call.isChange() && !call.isOfPast)
            performChange(call);
        else
            perform(call);
        ++result.calls;
        if (until && call.number == *until) break;
    }
    compareAnswers();
    compareSessions();
    checkEnds();
    result.unanswered = Machine::shared().unanswered();
    result.breaches = Machine::shared().breaches();
    return result;
}

// A flow that was asked about meanwhile has met the state of before, of after, or of any step between.
void Player::performChange(const RecordedCall& change) {
    std::vector<const RecordedCall*> overlapping;
    for (const auto& call : recording.calls)
        if (call.isFlow() && call.overlaps(change.ofChange)) overlapping.push_back(&call);
    const auto ask = [&] {
        for (const auto* call : overlapping) alsoRight[call->number].insert(answerNow(*call));
    };
    if (overlapping.empty()) return perform(change);
    ask();
    Machine::shared().watchSteps(ask);
    perform(change);
    Machine::shared().watchSteps(nullptr);
    ask();
}

void Player::perform(const RecordedCall& call) {
    auto& machine = Machine::shared();
    machine.begin(call);
    if (call.name == "proxyFlow") begunHere.insert(call.number);
    if (isOfFilter(call)) tokensOfFilter.insert(tokenText(call));
    noteActions(call);
    const bool isKnown =
        performOnProvider(call) || performOnSession(call) || performCompletion(call);
    if (call.isOfPast) return;
    if (isKnown)
        compareAsks(call);
    else
        ++result.notAskedFor;
}

void Player::noteActions(const RecordedCall& call) {
    for (const auto& line : call.asked) {
        if (!isAction(line)) continue;
        const auto number = static_cast<std::uint64_t>(line.at(1).number());
        if (line.at(0).text == "holdBack") heldBackIn.emplace(number, &call);
        if (line.at(0).text == "cancel") endedIn.emplace(number, &call);
        recordedActions[number].push_back(actionIn(line));
        auto& calls = touching[number];
        if (calls.empty() || calls.back() != &call) calls.push_back(&call);
    }
    if (isOfSession(call))
        touching[static_cast<std::uint64_t>(call.with.at(0).number())].push_back(&call);
}

void Player::compareAsks(const RecordedCall& call) {
    const auto before = asksIn(call);
    const auto& after = Machine::shared().asks();
    if (before == after) return;
    result.differences.push_back(
        {call.number, call.name + ": recorded " + joined(before) + "; now " + joined(after),
         false});
}

bool Player::performOnProvider(const RecordedCall& call) {
    const auto& name = call.name;
    const auto reason = static_cast<NEProviderStopReason>(call.with.at(0).number());
    if (name == "proxyFlow")
        given[call.number] = offerToProxy(call);
    else if (isOfFilter(call))
        given[call.number] = answerOf(*filter, call);
    else if (name == "explain")
        given[call.number] = answerNow(call);
    else if (name == "startFilter")
        filter->startFilter([](const std::optional<NSError>&) {});
    else if (name == "startProxy")
        proxy->startProxy(std::nullopt, [](const std::optional<NSError>&) {});
    else if (name == "stopProxy")
        proxy->stopProxy(reason, [] {});
    else if (name == "stopFilter")
        filter->stopFilter(reason, [] {});
    else if (name == "sleep")
        proxy->sleep([] {});
    else if (name == "wake")
        proxy->wake();
    else if (name == "message")
        performMessage(call);
    else
        return false;
    return true;
}

void Player::performMessage(const RecordedCall& call) {
    const auto reply = std::make_shared<std::optional<std::string>>();
    proxy->handleAppMessage(Data(call.with.at(0).text), [reply](const std::optional<Data>& data) {
        if (data) *reply = std::string(data->bytes().value_or(""));
    });
    if (!call.isOfPast && !call.answered.fields.empty()) compareReply(call, *reply);
}

void Player::compareReply(const RecordedCall& message, const std::optional<std::string>& reply) {
    const auto before = comparableReply(message.answered.at(0).value());
    const auto after = comparableReply(reply);
    if (before == after) return;
    const bool isDuringChange = std::ranges::any_of(recording.calls, [&](const auto& other) {
        return &other != &message && other.isChange() && message.overlaps(other.ofChange);
    });
    if (isDuringChange)
        ++result.answeredDuringChange;
    else
        result.differences.push_back(
            {message.number, "message: recorded " + before + ", now " + after, false});
}

bool Player::performOnSession(const RecordedCall& call) {
    if (!isOfSession(call)) return false;
    const auto& with = call.with;
    const auto number = static_cast<std::uint64_t>(with.at(0).number());
    if (!begunHere.contains(number)) return true;  // of before the recording
    auto& session = Machine::shared().session(number);
    const auto& name = call.name;
    if (name == "opened") return complete(session.opening, errorIn(with.at(1)));
    if (name == "flowWritten") return complete(session.writing, errorIn(with.at(1)));
    if (name == "sent") return complete(session.sending, errorIn(with.at(1)));
    if (name == "flowRead")
        return complete(session.reading, dataIn(with.at(1)), errorIn(with.at(2)));
    if (name == "received")
        return complete(session.receiving, dataIn(with.at(1)),
                        NWConnection::ContentContext::defaultMessage, with.at(2).number() == 1,
                        errorIn(with.at(3)));
    if (!session.stateHandler) return false;
    // Held by this call too: the core may take it back from inside.
    const auto handler = session.stateHandler;
    handler({static_cast<NWConnection::State::Kind>(with.at(1).number()), errorIn(with.at(2))});
    return true;
}

bool Player::performCompletion(const RecordedCall& call) {
    auto& machine = Machine::shared();
    const auto& with = call.with;
    if (call.name == "work")
        return machine.runWork(static_cast<std::uint64_t>(with.at(0).number()),
                               static_cast<int>(with.at(1).number()));
    if (call.name == "notification") {
        const auto observers = machine.observers;
        for (const auto& [observer, callback] : observers)
            callback(CFNotificationCenterGetDarwinNotifyCenter(), observer, with.at(0).text,
                     nullptr, nullptr);
        return !observers.empty();
    }
    if (call.name == "path") {
        const auto handler = machine.pathHandler;
        if (handler) (*handler)(pathIn(with));
        return handler != nullptr;
    }
    if (call.name == "tunnels" && !machine.loads.empty()) {
        std::vector<NETunnelProviderManager> managers;
        for (std::size_t index = 1; index < with.fields.size(); ++index)
            managers.emplace_back(std::make_shared<const NETunnelProviderProtocol>(
                with.at(index).text, std::nullopt));
        auto completion = takeFirst(machine.loads);
        if (with.at(0).number() == 1)
            completion(std::move(managers), std::nullopt);
        else
            completion(std::nullopt, NSError{"recorded", 0, "as recorded"});
        return true;
    }
    auto& settings = call.name == "filterSettings" ? machine.filterSettings : machine.proxySettings;
    if (!call.name.ends_with("Settings") || settings.empty()) return false;
    auto completion = takeFirst(settings);
    completion(errorIn(with.at(0)));
    return true;
}

std::string Player::offerToProxy(const RecordedCall& call) {
    const FlowParts parts(call);
    NEFlowMetaData metaData{parts.identifier, parts.token};
    std::shared_ptr<NEAppProxyFlow> flow;
    if (parts.isDatagram())
        flow = std::make_shared<NEAppProxyUDPFlow>(std::move(metaData), parts.remote);
    else
        flow = flowOf(call.number, std::move(metaData), parts.remote);
    const bool isClaimed = proxy->handleNewFlow(flow);
    const bool isOpening = bool(Machine::shared().session(call.number).opening);
    if (isClaimed != isOpening)
        Machine::shared().breach(isClaimed ? "a claimed flow is not opened"
                                           : "a declined flow is opened");
    return isClaimed ? "claimed" : "declined";
}

JSONObject Player::explain(const RecordedCall& call) const {
    const FlowParts parts(call);
    const auto* host = hostEndpoint(parts.remote);
    return registeredProviders.explain(*proxy, *filter,
                                       {.metaData = {parts.identifier, parts.token},
                                        .remote = host ? *host : NWHostEndpoint{},
                                        .isDatagram = parts.isDatagram()});
}

// The answer as the rules are now, without a trace where there might be one: a program that the filter does not
// know yet is not to be named by it before its time.
std::string Player::answerNow(const RecordedCall& call) const {
    if (isOfFilter(call)) {
        const bool isKnown = tokensOfFilter.contains(tokenText(call));
        return answerOf(isKnown ? *filter : *registeredProviders.makeFilterProvider(), call);
    }
    const auto explained = explain(call);
    if (call.name == "explain") return textOf(recorded::addExplanation, explained);
    const auto text = [&](std::string_view key) {
        const auto found = explained.find(key);
        const auto* value = found == explained.end() ? nullptr : found->second.as<std::string>();
        return value ? *value : std::string();
    };
    const bool isClosed = text("route") == "blocked" && text("decidedBy") == "directFallback";
    return text("route") == "direct" || isClosed ? "claimed" : "declined";
}

void Player::compareAnswers() {
    for (const auto& call : recording.calls) {
        const auto found = given.find(call.number);
        if (found == given.end()) continue;
        ++result.flows;
        const auto recordedAnswer = textOf(call.answered);
        if (found->second == recordedAnswer) continue;
        const auto others = alsoRight.find(call.number);
        if (others != alsoRight.end() && others->second.contains(recordedAnswer)) {
            ++result.answeredDuringChange;
            continue;
        }
        result.differences.push_back(
            {call.number, call.name + ": recorded " + recordedAnswer + ", now " + found->second});
    }
}

// Whether its end overlapped with the change that held it back, or would have: then it may have come first.
bool Player::isEndedBesideHoldingBack(std::uint64_t number) const {
    const auto ended = endedIn.find(number);
    if (ended == endedIn.end()) return false;
    const auto& end = *ended->second;
    const auto recordedIn = heldBackIn.find(number);
    const auto played = Machine::shared().allSessions().find(number);
    return std::ranges::any_of(recording.calls, [&](const RecordedCall& call) {
        const bool isHolding = (recordedIn != heldBackIn.end() && recordedIn->second == &call) ||
                               (played != Machine::shared().allSessions().end() &&
                                played->second.heldBackIn == call.number);
        return isHolding && &call != &end && call.overlaps({end.number, end.end});
    });
}

void Player::compareSessions() {
    const auto& now = Machine::shared().allSessions();
    for (const auto number : begunHere) {
        const auto recordedOnes = recordedActions.find(number);
        const auto played = now.find(number);
        const std::vector<std::string> none;
        const auto& before = recordedOnes == recordedActions.end() ? none : recordedOnes->second;
        const auto& after = played == now.end() ? none : played->second.actions;
        if (!before.empty()) ++result.sessions;
        if (before == after || alsoRight.contains(number)) continue;
        const auto calls = touching.find(number);
        const bool isOfTwo = calls != touching.end() && anyOverlap(calls->second);
        if (isOfTwo && withoutErrors(before) == withoutErrors(after)) {
            ++result.endedByTwo;
            continue;
        }
        if (isEndedBesideHoldingBack(number) && without("holdBack", withoutErrors(before)) ==
                                                    without("holdBack", withoutErrors(after))) {
            ++result.endedByTwo;
            continue;
        }
        result.differences.push_back(
            {number, "its connection: recorded " + joined(before) + "; now " + joined(after)});
    }
}

// A connection that is given up is closed to its application too.
void Player::checkEnds() const {
    for (const auto& [number, session] : Machine::shared().allSessions()) {
        const auto words = withoutErrors(session.actions);
        const bool isWhole =
            words.contains("cancel") == words.contains("closeRead") || !words.contains("connect");
        if (!isWhole)
            Machine::shared().breach("flow " + std::to_string(number) +
                                     " is closed on one side only");
    }
}

std::string Player::explanationOf(const RecordedCall& flow) const {
    JSONWriter writer(2);
    writer.value(explain(flow));
    return writer.finish().value_or("");
}

}  // namespace platform::replayed
