#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

namespace {

constexpr const char* object = "/org/freedesktop/Notifications";
constexpr const char* interface = "org.freedesktop.Notifications";

void say(const char* what) {
    std::puts(what);
    std::fflush(stdout);
}

// The part of a desktop that shows notices: on the session bus under its name, it writes each notice as a line of
// standard output, and presses the button of the one whose number is a line of standard input. One thread.
class NoticeBoard {
public:
    // False if the bus or the name is not to be had.
    bool open() {
        return sd_event_new(&event) >= 0 && sd_bus_open_user(&bus) >= 0 &&
               sd_bus_add_object_vtable(bus, nullptr, object, interface, methods, this) >= 0 &&
               sd_bus_request_name(bus, interface, 0) >= 0 &&
               sd_bus_attach_event(bus, event, SD_EVENT_PRIORITY_NORMAL) >= 0 &&
               sd_event_add_io(event, nullptr, STDIN_FILENO, EPOLLIN, &NoticeBoard::press, this) >=
                   0;
    }
    ~NoticeBoard() {
        sd_bus_flush_close_unref(bus);
        sd_event_unref(event);
    }
    NoticeBoard() = default;
    NoticeBoard(const NoticeBoard&) = delete;
    NoticeBoard& operator=(const NoticeBoard&) = delete;

    // Until standard input ends.
    void run() { sd_event_loop(event); }

private:
    static int press(sd_event_source*, int input, std::uint32_t, void* self) {
        char text[64] = "";
        auto& board = *static_cast<NoticeBoard*>(self);
        if (read(input, text, sizeof text - 1) <= 0) return sd_event_exit(board.event, 0);
        const auto number = static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
        sd_bus_emit_signal(board.bus, object, interface, "ActionInvoked", "us", number,
                           board.key.c_str());
        return 0;
    }

    static int notify(sd_bus_message* message, void* self, sd_bus_error*) {
        auto& board = *static_cast<NoticeBoard*>(self);
        const char *program, *icon, *title, *body, *key = nullptr, *label = nullptr;
        std::uint32_t replaced = 0;
        sd_bus_message_read(message, "susss", &program, &replaced, &icon, &title, &body);
        sd_bus_message_enter_container(message, 'a', "s");
        sd_bus_message_read(message, "ss", &key, &label);
        board.key = key ? key : "";
        say(nlohmann::json{{"number", ++board.count},
                           {"title", title},
                           {"body", body},
                           {"button", label ? label : ""}}
                .dump()
                .c_str());
        return sd_bus_reply_method_return(message, "u", board.count);
    }

    static inline const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", &NoticeBoard::notify,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("ActionInvoked", "us", 0),
        SD_BUS_VTABLE_END,
    };

    sd_event* event = nullptr;
    sd_bus* bus = nullptr;
    std::uint32_t count = 0;
    std::string key;
};

}  // namespace

int main() {
    NoticeBoard board;
    if (!board.open()) return 1;
    say("ready");
    board.run();
}
