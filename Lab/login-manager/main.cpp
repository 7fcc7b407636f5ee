#include <fcntl.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "Lab/sockets/Descriptor.h"

namespace {

constexpr const char* object = "/org/freedesktop/login1";
constexpr const char* interface = "org.freedesktop.login1.Manager";
constexpr const char* name = "org.freedesktop.login1";

void say(const char* what) {
    std::puts(what);
    std::fflush(stdout);
}

// The part of a machine's login manager that announces sleep: on the bus under its name, it hands out
// inhibitors, and tells of sleep and wake when a line of standard input says so. Every inhibitor that
// is taken or let go is a line of standard output. One thread.
class LoginManager {
public:
    // False if the bus or the name is not to be had.
    bool open(const char* address) {
        sd_event_new(&event_);
        sd_bus_new(&bus_);
        return sd_bus_set_address(bus_, address) >= 0 && sd_bus_set_bus_client(bus_, 1) >= 0 &&
               sd_bus_start(bus_) >= 0 &&
               sd_bus_add_object_vtable(bus_, nullptr, object, interface, methods, this) >= 0 &&
               sd_bus_request_name(bus_, name, 0) >= 0 &&
               sd_bus_attach_event(bus_, event_, SD_EVENT_PRIORITY_NORMAL) >= 0 &&
               sd_event_add_io(event_, nullptr, STDIN_FILENO, EPOLLIN, &LoginManager::command,
                               this) >= 0;
    }
    ~LoginManager() {
        sd_bus_flush_close_unref(bus_);
        sd_event_unref(event_);
    }
    LoginManager() = default;
    LoginManager(const LoginManager&) = delete;
    LoginManager& operator=(const LoginManager&) = delete;

    // Until standard input ends.
    void run() { sd_event_loop(event_); }

private:
    static int command(sd_event_source*, int input, uint32_t, void* self) {
        char text[64];
        const auto length = read(input, text, sizeof text);
        auto& manager = *static_cast<LoginManager*>(self);
        if (length <= 0) return sd_event_exit(manager.event_, 0);
        const bool isAboutToSleep =
            std::string_view(text, static_cast<size_t>(length)) == "sleep\n";
        sd_bus_emit_signal(manager.bus_, object, interface, "PrepareForSleep", "b",
                           isAboutToSleep ? 1 : 0);
        return 0;
    }

    static int inhibit(sd_bus_message* message, void* self, sd_bus_error*) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return -1;
        const lab::Descriptor given(ends[1]);
        auto& manager = *static_cast<LoginManager*>(self);
        manager.watched_ = lab::Descriptor(ends[0]);
        sd_event_add_io(manager.event_, nullptr, ends[0], 0, &LoginManager::letGo, self);
        say("taken");
        return sd_bus_reply_method_return(message, "h", given.number());
    }

    // The other end of the pipe has been closed.
    static int letGo(sd_event_source* source, int, uint32_t, void*) {
        sd_event_source_set_enabled(source, SD_EVENT_OFF);
        say("let go");
        return 0;
    }

    static inline const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Inhibit", "ssss", "h", &LoginManager::inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("PrepareForSleep", "b", 0),
        SD_BUS_VTABLE_END,
    };

    sd_event* event_ = nullptr;
    sd_bus* bus_ = nullptr;
    lab::Descriptor watched_;
};

}  // namespace

// login-manager BUS-ADDRESS
int main(int argc, char** argv) {
    LoginManager manager;
    if (argc != 2 || !manager.open(argv[1])) return 1;
    say("ready");
    manager.run();
}
