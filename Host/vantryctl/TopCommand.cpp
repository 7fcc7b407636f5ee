#include "Host/vantryctl/TopCommand.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <sstream>
#include <thread>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/ActivityLog.h"
#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/SettingsClient.h"
#include "Host/vantryctl/Terminal.h"
#include "Host/vantryctl/TopScreen.h"

namespace vantryctl {

using platform::JSONObject;

namespace {

using Clock = std::chrono::steady_clock;
using Key = TopScreen::Key;

constexpr std::chrono::seconds interval{1};

// Asks the daemon into a model, and knows when it last did.
class Feed {
public:
    std::optional<Failure> ask() {
        const auto answer = askPlatform({{"question", "applications"}});
        if (const auto* failure = failureOf(answer)) return *failure;
        const auto now = Clock::now();
        const std::chrono::duration<double> since = asked ? now - *asked : Clock::duration::zero();
        traffic.take(std::get<JSONObject>(answer), since.count());
        asked = now;
        askAboutIdle();
        return std::nullopt;
    }
    const TrafficModel& model() const { return traffic; }

private:
    // Their rules may have changed since their last connection.
    void askAboutIdle() {
        for (const auto& each : traffic.applications()) {
            if (each.connections > 0 || each.identifier.empty()) continue;
            const auto answer = askPlatform(
                {{"question", "why"}, {"identifier", each.identifier}, {"protocol", "tcp"}});
            if (const auto* document = std::get_if<JSONObject>(&answer))
                traffic.explain(each.identifier, *document);
        }
    }

    TrafficModel traffic;
    std::optional<Clock::time_point> asked;
};

std::string outputOf(const std::vector<std::string>& words, std::size_t width) {
    std::ostringstream text;
    run(words, {text, text, width});
    return text.str();
}

// False: leave.
bool press(TopScreen& screen, const TrafficModel& model, const Terminal::Press& typed) {
    if (typed.key != Key::character) return screen.press(typed.key, 0, model);
    return std::ranges::all_of(
        typed.character, [&](char byte) { return screen.press(Key::character, byte, model); });
}

std::string titleOf(const std::string& since) {
    const auto loaded = loadSettings();
    const auto* stored = std::get_if<StoredSettings>(&loaded);
    const auto vpn = !stored ? std::string("unknown")
                     : stored->tunnel.isUp
                         ? fmt::format("up {}", fmt::join(stored->tunnel.carrying, ", "))
                         : std::string("down");
    return fmt::format("vantryctl top   VPN: {}   TCP connections, bytes since {}", vpn, since);
}

// Draws and takes keys until the next question is due. False: leave.
bool showUntil(Clock::time_point due, Terminal& terminal, TopScreen& screen,
               const TrafficModel& model, const std::string& title) {
    for (auto now = Clock::now(); now < due; now = Clock::now()) {
        const auto size = terminal.size();
        terminal.show(screen.draw(model, title, size.columns, size.lines));
        const auto typed = terminal.read(std::chrono::ceil<std::chrono::milliseconds>(due - now));
        if (typed && !press(screen, model, *typed)) return false;
    }
    return true;
}

ExitCode showLive(const Console& console) {
    Feed feed;
    auto failure = feed.ask();
    if (failure) return console.report(*failure);
    auto terminal = Terminal::take();
    if (!terminal)
        return console.report({ExitCode::usage, "On this terminal (TERM) nothing can be drawn.",
                               "Without drawing: vantryctl top --once"});
    const auto started = platform::Date::now();
    TopScreen screen(outputOf);
    while (!failure) {
        const auto title = titleOf(localTime(started, platform::Date::now()));
        if (!showUntil(Clock::now() + interval, *terminal, screen, feed.model(), title))
            return ExitCode::done;
        failure = feed.ask();
    }
    terminal.reset();
    return console.report(*failure);
}

JSONObject documentOfTraffic(const ApplicationTraffic& application) {
    return {{"identifier", application.identifier},
            {"rule", application.rule},
            {"route", application.route},
            {"decidedBy", application.decidedBy},
            {"connections", static_cast<std::int64_t>(application.connections)},
            {"directConnections", static_cast<std::int64_t>(application.direct)},
            {"sentPerSecond", application.sentRate},
            {"receivedPerSecond", application.receivedRate},
            {"sent", static_cast<std::int64_t>(application.sent)},
            {"received", static_cast<std::int64_t>(application.received)}};
}

ExitCode showOnce(bool asJSON, const Console& console) {
    Feed feed;
    if (const auto failure = feed.ask()) return console.report(*failure);
    std::this_thread::sleep_for(interval);
    if (const auto failure = feed.ask()) return console.report(*failure);
    const auto applications = feed.model().applications();
    if (!asJSON) {
        console.out << trafficTable(applications).text(console.width);
        return ExitCode::done;
    }
    platform::JSONArray list;
    for (const auto& each : applications) list.emplace_back(documentOfTraffic(each));
    console.out << documentOf({{"applications", std::move(list)}});
    return ExitCode::done;
}

}  // namespace

ExitCode showTop(const TopOptions& options, const Console& console) {
    if (options.isOnce || options.asJSON) return showOnce(options.asJSON, console);
    if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)
        return console.report({ExitCode::usage, "top needs a terminal.",
                               "For a script: vantryctl top --once, or --json"});
    return showLive(console);
}

}  // namespace vantryctl
