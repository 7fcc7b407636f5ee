#include "Host/vantryctl/Terminal.h"

// As functions: the macros' names are those of other things here.
#define NCURSES_NOMACROS 1
#include <curses.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>

namespace vantryctl {

namespace {

using Key = TopScreen::Key;

// How long the rest of a key's sequence is waited for.
constexpr int escapeMilliseconds = 50;

std::optional<Terminal::Press> specialKey(wint_t code) {
    switch (code) {
        case KEY_UP:
            return Terminal::Press{Key::up, ""};
        case KEY_DOWN:
            return Terminal::Press{Key::down, ""};
        case KEY_BACKSPACE:
            return Terminal::Press{Key::erase, ""};
        case KEY_ENTER:
            return Terminal::Press{Key::enter, ""};
        default:
            return std::nullopt;
    }
}

std::optional<Terminal::Press> ordinaryKey(wint_t letter) {
    switch (letter) {
        case L'\n':
        case L'\r':
            return Terminal::Press{Key::enter, ""};
        case L'\b':
        case 0x7f:
            return Terminal::Press{Key::erase, ""};
        case 0x1b:
            return Terminal::Press{Key::escape, ""};
        default:
            break;
    }
    std::mbstate_t state{};
    std::string bytes(MB_CUR_MAX, '\0');
    const auto length = std::wcrtomb(bytes.data(), static_cast<wchar_t>(letter), &state);
    if (length == static_cast<std::size_t>(-1)) return std::nullopt;
    bytes.resize(length);
    return Terminal::Press{Key::character, std::move(bytes)};
}

}  // namespace

struct Terminal::Handle {
    SCREEN* screen;
};

std::unique_ptr<Terminal> Terminal::take() {
    // All that is drawn is UTF-8, also where the account has no locale.
    std::setlocale(LC_CTYPE, "");
    if (MB_CUR_MAX == 1) std::setlocale(LC_CTYPE, "C.UTF-8");
    SCREEN* const screen = newterm(nullptr, stdout, stdin);
    if (screen == nullptr) return nullptr;
    std::unique_ptr<Terminal> terminal(new Terminal(new Handle{screen}));
    // One that cannot go to a place draws nothing that can be read.
    if (tigetstr("cup") == nullptr) return nullptr;
    cbreak();
    noecho();
    set_escdelay(escapeMilliseconds);
    keypad(stdscr, TRUE);
    curs_set(0);
    return terminal;
}

Terminal::~Terminal() {
    endwin();
    delscreen(handle->screen);
    delete handle;
}

Terminal::Size Terminal::size() const {
    return {static_cast<std::size_t>(getmaxx(stdscr)), static_cast<std::size_t>(getmaxy(stdscr))};
}

void Terminal::show(const std::vector<TopScreen::Line>& lines) {
    werase(stdscr);
    const auto count = std::min(lines.size(), size().lines);
    for (std::size_t number = 0; number < count; ++number) {
        wattrset(stdscr, lines[number].isChosen ? static_cast<int>(A_REVERSE) : 0);
        mvwaddstr(stdscr, static_cast<int>(number), 0, lines[number].text.c_str());
    }
    wattrset(stdscr, 0);
    wrefresh(stdscr);
}

std::optional<Terminal::Press> Terminal::read(std::chrono::milliseconds time) {
    wtimeout(stdscr, static_cast<int>(std::max<std::int64_t>(time.count(), 0)));
    wint_t typed = 0;
    const int kind = wget_wch(stdscr, &typed);
    if (kind == ERR) return std::nullopt;
    return kind == KEY_CODE_YES ? specialKey(typed) : ordinaryKey(typed);
}

}  // namespace vantryctl
