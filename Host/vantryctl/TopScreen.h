// The screen of `top`: a table of applications, one of which is chosen, and what its keys do. It knows no
// terminal: it is given keys and draws lines of text, so that it can be looked at anywhere. One thread.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "Host/vantryctl/Table.h"
#include "Host/vantryctl/TrafficModel.h"

namespace vantryctl {

// A row for each application.
Table trafficTable(const std::vector<ApplicationTraffic>& applications);

class TopScreen {
public:
    // Carries out a command of the tool and gives what it prints on a terminal of that width.
    using RunTool =
        std::function<std::string(const std::vector<std::string>& words, std::size_t width)>;
    struct Line {
        std::string text;
        bool isChosen = false;
    };

    explicit TopScreen(RunTool runTool) : tool(std::move(runTool)) {}

    enum class Key { up, down, escape, enter, erase, character };
    // False: the person wants to leave.
    bool press(Key key, char character, const TrafficModel& model);

    // `height` lines of `width` cells.
    std::vector<Line> draw(const TrafficModel& model, const std::string& title, std::size_t width,
                           std::size_t height);

private:
    bool command(char character, const std::string& application);
    void edit(Key key, char character);
    void carryOut(const std::vector<std::string>& words, bool isLong);
    std::string chosenIn(const TrafficModel& model) const;
    std::vector<Line> table(const TrafficModel& model, std::size_t width, std::size_t rows) const;

    const RunTool tool;
    std::string chosen;  // an identifier, so that it stays chosen when the order changes
    std::string filter;
    bool isEditingFilter = false;
    std::vector<std::string> explanation;  // shown in place of the table while there is any
    std::string message;
    std::size_t widthDrawn = Table::standardWidth;
};

}  // namespace vantryctl
