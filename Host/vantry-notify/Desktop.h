// The person's desktop, over the session's message bus: shows notices, and hears which button of one was pressed.
// One thread.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Host/vantry-notify/Notices.h"

namespace vantrynotify {

class Desktop {
public:
    // Given the words for vantryctl that a pressed button stands for.
    using Press = std::function<void(const std::vector<std::string>& command)>;

    // Null where there is no session bus; standard error then says why.
    static std::unique_ptr<Desktop> connect(Press pressed);

    // A desktop that shows no notices is asked again for the next one. False: the bus is gone.
    bool show(const Notice& notice);

    // To be waited for, and to be called whenever there is something. False: the bus is gone.
    int descriptor() const { return sd_bus_get_fd(bus.get()); }
    bool takeEvents();

private:
    struct Drop {
        void operator()(sd_bus* connection) const { sd_bus_flush_close_unref(connection); }
    };
    explicit Desktop(sd_bus* connection, Press toCall)
        : bus(connection), pressed(std::move(toCall)) {}
    static int buttonPressed(sd_bus_message* message, void* desktop, sd_bus_error* error);
    static int noticeClosed(sd_bus_message* message, void* desktop, sd_bus_error* error);

    std::unique_ptr<sd_bus, Drop> bus;
    const Press pressed;
    std::map<std::uint32_t, std::vector<std::string>> commands;  // of the notices that are shown
};

}  // namespace vantrynotify
