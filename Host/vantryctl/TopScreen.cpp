#include "Host/vantryctl/TopScreen.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <utility>

#include "Host/vantryctl/Amount.h"

namespace vantryctl {

namespace {

constexpr const char* helpOfKeys =
    "d direct  v vpn  b block  u unblock  e explain  / filter  q quit";
constexpr const char* reverse = "\x1b[7m";
constexpr const char* plain = "\x1b[0m";
// Above and below the table: title, heads of the columns; message, keys.
constexpr std::size_t linesAround = 4;

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(printable(line));
    return lines;
}

std::string routeText(const ApplicationTraffic& application) {
    if (application.route == "system") return "vpn";
    return application.route.empty() ? "-" : application.route;
}

std::vector<std::string> cellsOf(const ApplicationTraffic& application) {
    return {application.identifier.empty() ? "(the system)" : application.identifier,
            routeText(application),
            application.decidedBy.empty() ? "-" : application.decidedBy,
            fmt::format("{}", application.connections),
            fmt::format("{}", application.direct),
            bytesText(application.sentRate) + "/s",
            bytesText(application.receivedRate) + "/s",
            bytesText(static_cast<double>(application.sent)),
            bytesText(static_cast<double>(application.received))};
}

}  // namespace

Table trafficTable(const std::vector<ApplicationTraffic>& applications) {
    Table table({{"APPLICATION", true},
                 {"GOES"},
                 {"BY", true},
                 {"CONN", false, true},
                 {"DIRECT", false, true},
                 {"OUT", false, true},
                 {"IN", false, true},
                 {"SENT", false, true},
                 {"RECEIVED", false, true}});
    for (const auto& application : applications) table.add(cellsOf(application));
    return table;
}

bool TopScreen::press(Key key, char character, const TrafficModel& model) {
    message.clear();
    if (isEditingFilter) {
        edit(key, character);
        return true;
    }
    if (!explanation.empty()) {
        explanation.clear();
        return true;
    }
    const auto list = model.applications(filter);
    const auto application = chosenIn(model);
    const auto at = std::ranges::find(list, application, &ApplicationTraffic::identifier);
    if (key == Key::up && at != list.end() && at != list.begin()) chosen = (at - 1)->identifier;
    if (key == Key::down && at != list.end() && at + 1 != list.end()) chosen = (at + 1)->identifier;
    if (key != Key::character) return true;
    return command(character, application);
}

bool TopScreen::command(char character, const std::string& application) {
    if (character == 'q') return false;
    if (character == '/') {
        isEditingFilter = true;
        return true;
    }
    if (application.empty()) {
        message = "The system's own programs meet no rule.";
        return true;
    }
    switch (character) {
        case 'd':
            carryOut({"rules", "set", application, "direct"}, false);
            break;
        case 'v':
            carryOut({"rules", "set", application, "vpn"}, false);
            break;
        case 'b':
            carryOut({"rules", "block", application}, false);
            break;
        case 'u':
            carryOut({"rules", "unblock", application}, false);
            break;
        case 'e':
            carryOut({"why", application}, true);
            break;
        default:
            message = helpOfKeys;
    }
    return true;
}

void TopScreen::edit(Key key, char character) {
    if (key == Key::character) filter += character;
    if (key == Key::erase && !filter.empty()) filter.pop_back();
    if (key == Key::escape) filter.clear();
    isEditingFilter = key == Key::character || key == Key::erase;
}

void TopScreen::carryOut(const std::vector<std::string>& words, bool isLong) {
    auto lines = linesOf(tool(words));
    if (isLong)
        explanation = std::move(lines);
    else
        message = lines.empty() ? "" : lines.front();
}

std::string TopScreen::chosenIn(const TrafficModel& model) const {
    const auto list = model.applications(filter);
    const bool isThere =
        std::ranges::find(list, chosen, &ApplicationTraffic::identifier) != list.end();
    return isThere || list.empty() ? chosen : list.front().identifier;
}

std::vector<std::string> TopScreen::table(const TrafficModel& model, std::size_t width,
                                          std::size_t rows) const {
    const auto list = model.applications(filter);
    auto lines = linesOf(trafficTable(list).text(width));
    const auto at = std::ranges::find(list, chosenIn(model), &ApplicationTraffic::identifier);
    if (at == list.end()) return lines;
    // The head of the columns comes first.
    auto place = static_cast<std::size_t>(at - list.begin()) + 1;
    lines[place].resize(std::max(width, lines[place].size()), ' ');
    lines[place] = reverse + lines[place] + plain;
    // What is chosen is on the screen.
    if (place > rows)
        lines.erase(lines.begin() + 1, lines.begin() + 1 + static_cast<long>(place - rows));
    return lines;
}

std::string TopScreen::draw(const TrafficModel& model, const std::string& title, std::size_t width,
                            std::size_t height) {
    const std::size_t rows = height > linesAround ? height - linesAround : 1;
    auto lines = explanation.empty() ? table(model, width, rows) : explanation;
    lines.resize(rows + 1);
    std::string text = printable(title) + "\n";
    for (const auto& line : lines) text += line + "\n";
    text += isEditingFilter ? "Only names with: " + filter + "_" : message;
    return text + "\n" + (explanation.empty() ? helpOfKeys : "Any key: back to the table");
}

}  // namespace vantryctl
