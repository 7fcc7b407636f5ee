#include "Host/vantryctl/SettingsClient.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <utility>

#include "Host/settings/Documents.h"
#include "Host/settings/Places.h"
#include "Host/settings/UnixExchange.h"
#include "Host/vantryctl/Console.h"
#include "Host/vantryctl/Daemon.h"

namespace vantryctl {

using platform::JSONObject;
using vantryhost::Choices;
using vantryhost::ExchangeFailure;

namespace {

// How often an edit is repeated because another tool came first.
constexpr int mostConflicts = 100;

std::optional<std::chrono::seconds> timeOfTrial;
std::optional<vantryhost::SecondsSince1970> endOfTrial;

// An answer of the service: the settings, and the document and revision that they came in.
struct Answer {
    StoredSettings stored;
    JSONObject preferences;
    std::string revision;
    std::vector<std::string> notes;
    std::string notInForce;  // why, where that is so
    bool isConflict = false;
};

Failure failureFor(const ExchangeFailure& failure) {
    if (failure.isNotRunning())
        return {ExitCode::daemonNotRunning, "The settings service is not running.",
                "Start it (systemctl start vantry-settings), or see why it ended (journalctl -u "
                "vantry-settings)."};
    if (failure.isNotPermitted())
        return {ExitCode::notPermitted,
                "Only root and the members of the group vantry may see and change the settings.",
                "Use sudo, or join the group (usermod -aG vantry NAME) and log in again."};
    return {
        ExitCode::failed,
        std::string("The settings service gave no answer: ") + std::strerror(failure.error) + ".",
        "If that lasts, restart it: systemctl restart vantry-settings"};
}

const platform::JSONValue* member(const JSONObject& object, std::string_view key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &found->second;
}

bool flagIn(const JSONObject& object, std::string_view key) {
    const auto* value = member(object, key);
    const auto* flag = value == nullptr ? nullptr : value->as<bool>();
    return flag != nullptr && *flag;
}

std::vector<std::string> textsIn(const JSONObject& object, std::string_view key) {
    const auto* value = member(object, key);
    return value == nullptr ? std::vector<std::string>{}
                            : platform::stringArray(*value).value_or(std::vector<std::string>{});
}

JSONObject objectIn(const JSONObject& object, std::string_view key) {
    const auto* value = member(object, key);
    const auto* inner = value == nullptr ? nullptr : value->as<JSONObject>();
    return inner == nullptr ? JSONObject{} : *inner;
}

Outcome<Answer> answerIn(const JSONObject& document) {
    using vantryhost::textUnder;
    const auto failure = objectIn(document, "failure");
    if (!failure.empty())
        return Failure{ExitCode::failed, textUnder(failure, "what"), textUnder(failure, "advice")};
    Answer answer;
    answer.isConflict = flagIn(document, "conflict");
    if (answer.isConflict) return answer;
    answer.preferences = objectIn(document, "preferences");
    answer.revision = textUnder(document, "revision");
    answer.notes = textsIn(document, "notes");
    answer.notInForce = textUnder(document, "notInForce");
    auto choices = Choices::read(answer.preferences);
    if (auto* problem = std::get_if<Failure>(&choices)) return std::move(*problem);
    const auto tunnel = objectIn(document, "tunnel");
    answer.stored = {
        std::get<std::optional<Choices>>(std::move(choices)).value_or(Choices{}),
        flagIn(document, "hasSettings"),
        {flagIn(tunnel, "isFollowed"), flagIn(tunnel, "isUp"), textsIn(tunnel, "carrying"),
         textsIn(tunnel, "absent"), textsIn(tunnel, "split")},
        flagIn(document, "isDaemonListening"),
        textsIn(document, "problems")};
    answer.stored.choices.settings.vpnConnected = answer.stored.tunnel.isUp;
    return answer;
}

Outcome<Answer> ask(const JSONObject& request) {
    const auto reply =
        vantryhost::exchange(places::settingsSocket, vantryhost::documentOf(request));
    if (const auto* failure = std::get_if<ExchangeFailure>(&reply)) return failureFor(*failure);
    const auto& bytes = std::get<std::string>(reply);
    // A peer that is not trusted is hung up on.
    if (bytes.empty() && geteuid() == 0)
        return Failure{ExitCode::failed, "The settings service ended before it answered.",
                       "Look at what is set now (vantryctl rules), and at why it ended (journalctl "
                       "-u vantry-settings)."};
    if (bytes.empty()) return failureFor({ExchangeFailure::Step::receive, EPERM});
    auto document = vantryhost::objectFrom("The settings service's answer", bytes);
    if (auto* failure = std::get_if<Failure>(&document)) return std::move(*failure);
    return answerIn(std::get<JSONObject>(document));
}

// Until it is confirmed, a change on trial remembers what was there before the first one.
void putOnTrial(const Choices& before, Choices& after) {
    if (!timeOfTrial) return;
    vantryhost::Trial trial{std::time(nullptr) + timeOfTrial->count(), {}};
    auto kept = before;
    kept.trial.reset();
    kept.writeInto(trial.before);
    // A person who may be locked out relies on the first one's end.
    if (before.trial) trial = {std::min(trial.until, before.trial->until), before.trial->before};
    after.trial = std::move(trial);
}

// What is changed beside a trial stays when that is taken back. True if the edit changed anything.
bool editBesideTrial(const Edit& edit, Choices& after) {
    if (timeOfTrial || !after.trial) return edit(after);
    auto before = Choices::read(after.trial->before);
    const bool isChanged = edit(after);
    auto* kept = std::get_if<std::optional<Choices>>(&before);
    if (kept == nullptr || !after.trial) return isChanged;
    auto beforeTrial = kept->value_or(Choices{});
    const bool isKeptChanged = edit(beforeTrial);
    beforeTrial.writeInto(after.trial->before);
    return isChanged || isKeptChanged;
}

// Where the rules file cannot be written, nothing changes for any flow.
Failure storedOnly(const Answer& answer) {
    return {ExitCode::failed, "The change is stored, but it is not in force: " + answer.notInForce,
            "The service tries it again every few seconds; vantryctl status says when it has."};
}

// The service has told the daemon, which may still be on its way to the new rules: what is started next
// would go by the old ones.
void waitForDaemon(Change& change) {
    constexpr std::chrono::seconds longestWait{3};
    const auto taken = askPlatform({{"question", "delivered"}}, longestWait);
    const auto* failure = failureOf(taken);
    change.isInForce = failure == nullptr;
    if (failure == nullptr) return;
    change.notes.push_back("The daemon does not say that it has taken the change: " +
                           failure->what);
    if (!failure->advice.empty()) change.notes.push_back(failure->advice);
}

void bringToDaemon(const Answer& answer, Change& change) {
    if (answer.stored.isDaemonListening)
        waitForDaemon(change);
    else
        change.notes.emplace_back(
            "The daemon is not running; it reads the settings when it starts.");
    if (answer.stored.choices.isOff)
        change.notes.emplace_back(
            "All rules are switched off; they hold again after vantryctl on.");
    for (const auto& problem : answer.stored.problems) change.notes.push_back(problem);
    if (!answer.stored.isDaemonListening || answer.stored.choices.isOff) change.isInForce = false;
}

Outcome<Change> changeBy(const char* request) {
    auto before = ask({{"do", "get"}});
    auto after = ask({{"do", request}});
    if (auto* failure = std::get_if<Failure>(&after)) return std::move(*failure);
    auto& done = std::get<Answer>(after);
    if (!done.notInForce.empty()) return storedOnly(done);
    Change change;
    change.after = done.stored.choices;
    change.isStored = true;
    change.notes = done.notes;
    change.isRepair = failureOf(before) != nullptr;
    if (auto* known = std::get_if<Answer>(&before)) {
        change.before = known->stored.choices;
        change.isStored = known->stored.choices != done.stored.choices;
    }
    bringToDaemon(done, change);
    return change;
}

}  // namespace

TrialOfChanges::TrialOfChanges(std::chrono::seconds time) {
    timeOfTrial = time;
    endOfTrial.reset();
}
TrialOfChanges::~TrialOfChanges() { timeOfTrial.reset(); }
std::optional<vantryhost::SecondsSince1970> TrialOfChanges::end() const { return endOfTrial; }

Outcome<StoredSettings> loadSettings() {
    auto answer = ask({{"do", "get"}});
    if (auto* failure = std::get_if<Failure>(&answer)) return std::move(*failure);
    return std::get<Answer>(std::move(answer)).stored;
}

namespace {

Outcome<Change> changeBy(const Edit& edit, bool isPassing) {
    for (int attempt = 0; attempt < mostConflicts; ++attempt) {
        auto asked = ask({{"do", "get"}});
        if (auto* failure = std::get_if<Failure>(&asked)) return std::move(*failure);
        auto& present = std::get<Answer>(asked);
        Change change;
        change.before = change.after = present.stored.choices;
        if (!editBesideTrial(edit, change.after)) return change;
        if (!isPassing) putOnTrial(change.before, change.after);
        change.after.writeInto(present.preferences);
        auto put = ask({{"do", "put"},
                        {"revision", present.revision},
                        {"isPassing", isPassing},
                        {"preferences", std::move(present.preferences)}});
        if (auto* failure = std::get_if<Failure>(&put)) return std::move(*failure);
        auto& done = std::get<Answer>(put);
        if (done.isConflict) continue;
        change.after = done.stored.choices;
        change.isStored = true;
        if (timeOfTrial && !isPassing && change.after.trial) endOfTrial = change.after.trial->until;
        if (!done.notInForce.empty()) return storedOnly(done);
        change.notes = done.notes;
        bringToDaemon(done, change);
        return change;
    }
    return Failure{ExitCode::failed, "Other tools are changing the settings all the time.",
                   "Try again in a moment."};
}

}  // namespace

Outcome<Change> changeSettings(const Edit& edit) { return changeBy(edit, false); }

Outcome<Change> changeInPassing(const Edit& edit) { return changeBy(edit, true); }

Outcome<Change> undoChange() {
    if (timeOfTrial)
        return Failure{ExitCode::usage, "What undo does cannot be on trial.",
                       "Do it for good: vantryctl undo"};
    return changeBy("undo");
}

Outcome<Change> restoreRulesFile() { return changeBy("restore"); }

std::string splitTunnelsText(const TunnelReport& tunnel) {
    if (!tunnel.isFollowed || tunnel.isUp || tunnel.split.empty()) return "";
    return fmt::format(
        "{} carries some networks only, and another tunnel carried all; if it is the VPN: "
        "vantryctl vpn follow -i {}",
        fmt::join(tunnel.split, ", "), tunnel.split.front());
}

}  // namespace vantryctl
