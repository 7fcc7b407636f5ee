// The screen of `top`: a table of applications, one of which is chosen, and what its keys do. It knows no
// terminal: it is given keys and draws into text, so that it can be looked at anywhere. One thread.
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
    // Carries out a command of the tool and gives what it printed.
    using RunTool = std::function<std::string(const std::vector<std::string>& words)>;

    explicit TopScreen(RunTool runTool) : tool(std::move(runTool)) {}

    enum class Key { up, down, escape, enter, erase, character };
    // False: the person wants to leave.
    bool press(Key key, char character, const TrafficModel& model);

    // `width` cells by `height` lines, without an end of line after the last one.
    std::string draw(const TrafficModel& model, const std::string& title, std::size_t width,
                     std::size_t height);

private:
    bool command(char character, const std::string& application);
    void edit(Key key, char character);
    void carryOut(const std::vector<std::string>& words, bool isLong);
    std::string chosenIn(const TrafficModel& model) const;
    std::vector<std::string> table(const TrafficModel& model, std::size_t width,
                                   std::size_t rows) const;

    const RunTool tool;
    std::string chosen;  // an identifier, so that it stays chosen when the order changes
    std::string filter;
    bool isEditingFilter = false;
    std::vector<std::string> explanation;  // shown in place of the table while there is any
    std::string message;
};

}  // namespace vantryctl
