// The terminal as a screen of its own: lines in, keys out. It knows the terminal by TERM, follows its size, and gives
// it back as it was, also where a signal ends or stops the program. One at a time, one thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Host/vantryctl/TopScreen.h"

namespace vantryctl {

class Terminal {
public:
    struct Size {
        std::size_t columns;
        std::size_t lines;
    };
    struct Press {
        TopScreen::Key key;
        std::string character;  // its bytes, of `Key::character`
    };

    // Takes the terminal of standard input and output; null where TERM names none that can be drawn on.
    static std::unique_ptr<Terminal> take();
    ~Terminal();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    Size size() const;
    void show(const std::vector<TopScreen::Line>& lines);
    // The next key within this time; none too where the size has changed.
    std::optional<Press> read(std::chrono::milliseconds time);

private:
    struct Handle;
    explicit Terminal(Handle* taken) : handle(taken) {}

    Handle* const handle;
};

}  // namespace vantryctl
