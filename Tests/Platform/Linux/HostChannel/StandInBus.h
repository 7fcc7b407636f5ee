// A system bus of the test's own, with a login manager on it. The bus is a real one, `dbus-daemon`
// with its own socket; the manager hands out inhibitors and announces sleep when the test says so.
// The test's thread drives it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"
#include "Tests/Platform/Linux/HostChannel/PrivateMachine.h"

namespace platform::testing {

class StandInBus {
public:
    static constexpr const char* address = "unix:path=/run/bus";
    static bool isAvailable() { return std::filesystem::exists("/usr/bin/dbus-daemon"); }

    StandInBus() {
        writeFile("/run/bus.conf",
                  "<busconfig><type>system</type><listen>unix:path=/run/bus</listen>"
                  "<auth>EXTERNAL</auth><policy context='default'><allow send_destination='*'/>"
                  "<allow receive_sender='*'/><allow own='*'/></policy></busconfig>");
        std::string program = "dbus-daemon";
        std::string configuration = "--config-file=/run/bus.conf";
        std::string foreground = "--nofork";
        char* arguments[] = {program.data(), configuration.data(), foreground.data(), nullptr};
        posix_spawn(&process, "/usr/bin/dbus-daemon", nullptr, nullptr, arguments, environ);
    }
    ~StandInBus() {
        kill(process, SIGTERM);
        waitpid(process, nullptr, 0);
    }
    StandInBus(const StandInBus&) = delete;
    StandInBus& operator=(const StandInBus&) = delete;

private:
    pid_t process = -1;
};

class StandInLoginManager {
public:
    StandInLoginManager() {
        EXPECT_TRUE(eventually([this] { return connect(); }));
    }

    void announceSleep(bool isAboutToSleep) {
        sd_bus_emit_signal(bus.get(), "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                           "PrepareForSleep", "b", isAboutToSleep ? 1 : 0);
        sd_bus_flush(bus.get());
    }

    // Serves the bus until the condition holds; false if it never does.
    bool servesUntil(const std::function<bool()>& condition) {
        return eventually([&] {
            while (sd_bus_process(bus.get(), nullptr) > 0) continue;
            return condition();
        });
    }

    std::size_t inhibitorsGiven() const { return inhibitors.size(); }
    bool isLastInhibitorHeld() const {
        pollfd state{inhibitors.back().get(), POLLIN, 0};
        return poll(&state, 1, 0) == 0;
    }
    void giveUpItsName() { sd_bus_release_name(bus.get(), "org.freedesktop.login1"); }
    void takeItsName() { sd_bus_request_name(bus.get(), "org.freedesktop.login1", 0); }

private:
    struct CloseBus {
        void operator()(sd_bus* toClose) const { sd_bus_flush_close_unref(toClose); }
    };

    bool connect() {
        sd_bus* made = nullptr;
        sd_bus_new(&made);
        bus.reset(made);
        const bool isConnected =
            sd_bus_set_address(made, StandInBus::address) >= 0 &&
            sd_bus_set_bus_client(made, 1) >= 0 && sd_bus_start(made) >= 0 &&
            sd_bus_add_object_vtable(made, nullptr, "/org/freedesktop/login1",
                                     "org.freedesktop.login1.Manager", methods, this) >= 0 &&
            sd_bus_request_name(made, "org.freedesktop.login1", 0) >= 0;
        if (!isConnected) bus.reset();
        return isConnected;
    }

    static int inhibit(sd_bus_message* message, void* self, sd_bus_error*) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return -1;
        static_cast<StandInLoginManager*>(self)->inhibitors.emplace_back(ends[0]);
        const FileDescriptor given(ends[1]);
        return sd_bus_reply_method_return(message, "h", given.get());
    }

    static inline const sd_bus_vtable methods[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Inhibit", "ssss", "h", &StandInLoginManager::inhibit,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("PrepareForSleep", "b", 0),
        SD_BUS_VTABLE_END,
    };
    std::unique_ptr<sd_bus, CloseBus> bus;
    std::vector<FileDescriptor> inhibitors;
};

}  // namespace platform::testing
