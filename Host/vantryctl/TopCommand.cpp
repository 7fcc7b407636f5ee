#include "Host/vantryctl/TopCommand.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <optional>
#include <sstream>
#include <thread>

#include "Host/settings/Documents.h"
#include "Host/vantryctl/ActivityLog.h"
#include "Host/vantryctl/CommandLine.h"
#include "Host/vantryctl/Daemon.h"
#include "Host/vantryctl/SettingsClient.h"
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
        return std::nullopt;
    }
    const TrafficModel& model() const { return traffic; }

private:
    TrafficModel traffic;
    std::optional<Clock::time_point> asked;
};

// The terminal, as a screen of its own without echo, until this goes.
class Screen {
public:
    Screen() {
        tcgetattr(STDIN_FILENO, &before);
        termios raw = before;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw);
        write("\x1b[?1049h\x1b[?25l");
    }
    ~Screen() {
        write("\x1b[?25h\x1b[?1049l");
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
    }
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Each line replaces what was there, so that nothing flickers.
    static void show(const std::string& text) {
        std::string lines = "\x1b[H";
        for (const char each : text)
            lines += each == '\n' ? std::string("\x1b[K\r\n") : std::string(1, each);
        write(lines + "\x1b[K\x1b[J");
    }
    static winsize size() {
        winsize found{};
        ioctl(STDOUT_FILENO, TIOCGWINSZ, &found);
        return found.ws_col > 0 && found.ws_row > 0 ? found : winsize{24, 80, 0, 0};
    }

private:
    static void write(std::string_view text) {
        while (!text.empty()) {
            const auto length = ::write(STDOUT_FILENO, text.data(), text.size());
            if (length <= 0) return;
            text.remove_prefix(static_cast<std::size_t>(length));
        }
    }
    termios before{};
};

// What the tool prints in a terminal of 80 columns.
std::string outputOf(const std::vector<std::string>& words) {
    std::ostringstream text;
    run(words, {text, text});
    return text.str();
}

// Keys that are waiting, sequences of several bytes as one.
bool pressAll(TopScreen& screen, const TrafficModel& model) {
    std::array<char, 64> bytes{};
    const auto length = read(STDIN_FILENO, bytes.data(), bytes.size());
    if (length <= 0) return false;
    const std::string_view text(bytes.data(), static_cast<std::size_t>(length));
    if (text == "\x1b[A" || text == "\x1bOA") return screen.press(Key::up, 0, model);
    if (text == "\x1b[B" || text == "\x1bOB") return screen.press(Key::down, 0, model);
    if (text.front() == '\x1b') return screen.press(Key::escape, 0, model);
    for (const char each : text) {
        const auto key = each == '\n' || each == '\r'     ? Key::enter
                         : each == '\x7f' || each == '\b' ? Key::erase
                                                          : Key::character;
        if (!screen.press(key, each, model)) return false;
    }
    return true;
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

// Waits for a key, but no longer than until the next question is due. False: leave.
bool waitAndPress(TopScreen& screen, const TrafficModel& model, Clock::time_point until) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    pollfd keys{STDIN_FILENO, POLLIN, 0};
    const int ready = poll(&keys, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    return ready <= 0 || pressAll(screen, model);
}

ExitCode showLive(const Console& console) {
    Feed feed;
    if (const auto failure = feed.ask()) return console.report(*failure);
    const auto started = platform::Date::now();
    TopScreen screen(outputOf);
    std::optional<Failure> failure;
    {
        const Screen terminal;
        bool isWanted = true;
        while (isWanted && !failure) {
            const auto due = Clock::now() + interval;
            const auto title = titleOf(localTime(started, platform::Date::now()));
            while (isWanted && Clock::now() < due) {
                const auto size = Screen::size();
                Screen::show(screen.draw(feed.model(), title, size.ws_col, size.ws_row));
                isWanted = waitAndPress(screen, feed.model(), due);
            }
            if (isWanted) failure = feed.ask();
        }
    }
    return failure ? console.report(*failure) : ExitCode::done;
}

JSONObject documentOfTraffic(const ApplicationTraffic& application) {
    return {{"identifier", application.identifier},
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
