#include "Host/vantry-notify/Desktop.h"

#include <cstring>
#include <iostream>
#include <string_view>
#include <utility>

namespace vantrynotify {

namespace {

constexpr const char* service = "org.freedesktop.Notifications";
constexpr const char* path = "/org/freedesktop/Notifications";
constexpr const char* button = "change";
// Of desktops that do not say when a notice is gone.
constexpr std::size_t mostButtons = 100;

// The body is text, of which the desktop takes some for markup.
std::string escaped(std::string_view text) {
    std::string safe;
    for (const char each : text) {
        if (each == '&')
            safe += "&amp;";
        else if (each == '<')
            safe += "&lt;";
        else
            safe += each;
    }
    return safe;
}

struct DropMessage {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, DropMessage>;

Message callFor(sd_bus& bus, const Notice& notice) {
    sd_bus_message* made = nullptr;
    if (sd_bus_message_new_method_call(&bus, &made, service, path, service, "Notify") < 0)
        return nullptr;
    Message call(made);
    int result = sd_bus_message_append(made, "susss", "Vantry", std::uint32_t{0}, "network-vpn",
                                       notice.title.c_str(), escaped(notice.body).c_str());
    if (result >= 0)
        result = notice.button.empty()
                     ? sd_bus_message_append(made, "as", 0)
                     : sd_bus_message_append(made, "as", 2, button, notice.button.c_str());
    if (result >= 0) result = sd_bus_message_append(made, "a{sv}i", 0, -1);
    return result < 0 ? nullptr : std::move(call);
}

}  // namespace

std::unique_ptr<Desktop> Desktop::connect(Press pressed) {
    sd_bus* bus = nullptr;
    int result = sd_bus_open_user(&bus);
    std::unique_ptr<Desktop> desktop(result < 0 ? nullptr : new Desktop(bus, std::move(pressed)));
    if (desktop)
        result = sd_bus_match_signal(bus, nullptr, nullptr, path, service, "ActionInvoked",
                                     &Desktop::buttonPressed, desktop.get());
    if (result >= 0)
        result = sd_bus_match_signal(bus, nullptr, nullptr, path, service, "NotificationClosed",
                                     &Desktop::noticeClosed, desktop.get());
    if (result >= 0) return desktop;
    std::cerr << "vantry-notify: no session bus: " << std::strerror(-result) << '\n';
    return nullptr;
}

bool Desktop::show(const Notice& notice) {
    const auto call = callFor(*bus, notice);
    sd_bus_error error{};
    sd_bus_message* reply = nullptr;
    const int result = call ? sd_bus_call(bus.get(), call.get(), 0, &error, &reply) : -ENOMEM;
    if (result < 0)
        std::cerr << "vantry-notify: not shown: " << notice.title << ": "
                  << (error.message ? error.message : std::strerror(-result)) << '\n';
    sd_bus_error_free(&error);
    const Message answer(reply);
    std::uint32_t number = 0;
    if (result >= 0 && sd_bus_message_read(reply, "u", &number) >= 0 && !notice.command.empty()) {
        if (commands.size() >= mostButtons) commands.erase(commands.begin());
        commands[number] = notice.command;
    }
    return sd_bus_is_open(bus.get()) > 0;
}

bool Desktop::takeEvents() {
    int result = 1;
    while (result > 0) result = sd_bus_process(bus.get(), nullptr);
    return result >= 0 && sd_bus_is_open(bus.get()) > 0;
}

int Desktop::buttonPressed(sd_bus_message* message, void* desktop, sd_bus_error*) {
    auto& self = *static_cast<Desktop*>(desktop);
    std::uint32_t number = 0;
    const char* key = nullptr;
    if (sd_bus_message_read(message, "us", &number, &key) < 0) return 0;
    const auto found = self.commands.find(number);
    if (found == self.commands.end() || std::string_view(key) != button) return 0;
    const auto command = std::move(found->second);
    self.commands.erase(found);
    self.pressed(command);
    return 0;
}

int Desktop::noticeClosed(sd_bus_message* message, void* desktop, sd_bus_error*) {
    std::uint32_t number = 0;
    // A pressed button closes its notice, and some desktops say that first: it is only forgotten
    // where the person or the time has closed it.
    std::uint32_t reason = 0;
    constexpr std::uint32_t expired = 1;
    constexpr std::uint32_t dismissed = 2;
    if (sd_bus_message_read(message, "uu", &number, &reason) >= 0 &&
        (reason == expired || reason == dismissed))
        static_cast<Desktop*>(desktop)->commands.erase(number);
    return 0;
}

}  // namespace vantrynotify
