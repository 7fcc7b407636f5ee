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
// Above and below the table: title, heads of the columns; message, keys.
constexpr std::size_t linesAround = 4;

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(printable(line));
    return lines;
}

std::vector<TopScreen::Line> plainLines(std::vector<std::string> texts) {
    std::vector<TopScreen::Line> lines;
    lines.reserve(texts.size());
    for (auto& text : texts) lines.push_back({std::move(text), false});
    return lines;
}

std::string ruleText(const ApplicationTraffic& application) {
    if (application.decidedBy == "block") return "block";
    if (application.route.empty()) return "-";
    return application.rule.empty() ? "default" : application.rule;
}

std::string routeText(const ApplicationTraffic& application) {
    if (application.route == "system") return "vpn";
    return application.route.empty() ? "-" : application.route;
}

std::vector<std::string> cellsOf(const ApplicationTraffic& application) {
    return {application.identifier.empty() ? "(the system)" : application.identifier,
            ruleText(application),
            routeText(application),
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
                 {"RULE"},
                 {"GOES"},
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
    // A character may have several bytes.
    const auto isInside = [&] { return !filter.empty() && (filter.back() & 0xc0) == 0x80; };
    if (key == Key::erase) {
        while (isInside()) filter.pop_back();
        if (!filter.empty()) filter.pop_back();
    }
    if (key == Key::escape) filter.clear();
    isEditingFilter = key == Key::character || key == Key::erase;
}

void TopScreen::carryOut(const std::vector<std::string>& words, bool isLong) {
    auto lines = linesOf(tool(words, widthDrawn));
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

std::vector<TopScreen::Line> TopScreen::table(const TrafficModel& model, std::size_t width,
                                              std::size_t rows) const {
    const auto list = model.applications(filter);
    auto lines = plainLines(linesOf(trafficTable(list).text(width)));
    const auto at = std::ranges::find(list, chosenIn(model), &ApplicationTraffic::identifier);
    if (at == list.end()) return lines;
    // The head of the columns comes first.
    const auto place = static_cast<std::size_t>(at - list.begin()) + 1;
    lines[place].isChosen = true;
    // What is chosen is on the screen.
    if (place > rows)
        lines.erase(lines.begin() + 1, lines.begin() + 1 + static_cast<long>(place - rows));
    return lines;
}

std::vector<TopScreen::Line> TopScreen::draw(const TrafficModel& model, const std::string& title,
                                             std::size_t width, std::size_t height) {
    widthDrawn = width;
    const std::size_t rows = height > linesAround ? height - linesAround : 1;
    auto lines = explanation.empty() ? table(model, width, rows) : plainLines(explanation);
    lines.resize(rows + 1);
    lines.insert(lines.begin(), {printable(title), false});
    lines.push_back({isEditingFilter ? "Only names with: " + filter + "_" : message, false});
    lines.push_back({explanation.empty() ? helpOfKeys : "Any key: back to the table", false});
    for (auto& line : lines) line.text = fitted(line.text, width);
    return lines;
}

}  // namespace vantryctl
