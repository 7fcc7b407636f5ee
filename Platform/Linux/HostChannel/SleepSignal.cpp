#include "Platform/Linux/HostChannel/SleepSignal.h"

#include <fcntl.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "Platform/Linux/HostChannel/HostChannelLog.h"

namespace platform {

namespace {

constexpr const char* loginManager = "org.freedesktop.login1";
constexpr const char* loginManagerObject = "/org/freedesktop/login1";
constexpr const char* loginManagerInterface = "org.freedesktop.login1.Manager";
constexpr std::uint64_t retryMicroseconds = 2'000'000;

std::string systemBusAddress() {
    const char* configured = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return configured != nullptr ? configured : "unix:path=/run/dbus/system_bus_socket";
}

}  // namespace

SleepSignal::SleepSignal(sd_event& eventLoop, Listener toTell)
    : loop(eventLoop), listener(std::move(toTell)), address(systemBusAddress()) {
    connect();
}

SleepSignal::~SleepSignal() = default;

void SleepSignal::connect() {
    const int result = openBus();
    if (result >= 0) return;
    bus.reset();
    if (!std::exchange(hasReportedNoBus, true))
        hostChannelLog.info(
            "No system bus at %{public}s (%{public}s): sleep and wake go unnoticed until there is "
            "one",
            address, std::strerror(-result));
    connectLater();
}

// Does not wait for the bus: a failure that shows later comes as its disconnection.
int SleepSignal::openBus() {
    sd_bus* made = nullptr;
    if (const int result = sd_bus_new(&made); result < 0) return result;
    bus.reset(made);
    if (const int result = sd_bus_set_address(made, address.c_str()); result < 0) return result;
    if (const int result = sd_bus_set_bus_client(made, 1); result < 0) return result;
    if (const int result = sd_bus_start(made); result < 0) return result;
    if (const int result = sd_bus_attach_event(made, &loop, SD_EVENT_PRIORITY_NORMAL); result < 0)
        return result;
    return watchBus();
}

int SleepSignal::watchBus() {
    const int isGone = sd_bus_match_signal(
        bus.get(), nullptr, "org.freedesktop.DBus.Local", "/org/freedesktop/DBus/Local",
        "org.freedesktop.DBus.Local", "Disconnected", &SleepSignal::busIsGone, this);
    if (isGone < 0) return isGone;
    const int sleeps = sd_bus_match_signal_async(
        bus.get(), nullptr, loginManager, loginManagerObject, loginManagerInterface,
        "PrepareForSleep", &SleepSignal::sleepIsAnnounced, nullptr, this);
    if (sleeps < 0) return sleeps;
    const int comesOrGoes = sd_bus_add_match_async(
        bus.get(), nullptr,
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
        "member='NameOwnerChanged',arg0='org.freedesktop.login1'",
        &SleepSignal::loginManagerCameOrWent, nullptr, this);
    if (comesOrGoes < 0) return comesOrGoes;
    askForInhibitor();
    return 0;
}

void SleepSignal::connectLater() {
    sd_event_source* made = nullptr;
    const int result = sd_event_add_time_relative(&loop, &made, CLOCK_MONOTONIC, retryMicroseconds,
                                                  0, &SleepSignal::retryIsDue, this);
    if (result < 0)
        hostChannelLog.error("The system bus will not be looked for again: %{public}s",
                             std::strerror(-result));
    retry.reset(made);
}

int SleepSignal::retryIsDue(sd_event_source*, std::uint64_t, void* self) {
    static_cast<SleepSignal*>(self)->connect();
    return 0;
}

// The bus is let go in the retry, not under its own callback.
int SleepSignal::busIsGone(sd_bus_message*, void* self, sd_bus_error*) {
    auto& signal = *static_cast<SleepSignal*>(self);
    if (!std::exchange(signal.hasReportedNoBus, true))
        hostChannelLog.info("The system bus is gone: sleep and wake go unnoticed until it is back");
    signal.inhibitor.reset();
    signal.connectLater();
    return 0;
}

int SleepSignal::loginManagerCameOrWent(sd_bus_message* message, void* self, sd_bus_error*) {
    const char* name = nullptr;
    const char* oldOwner = nullptr;
    const char* newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &oldOwner, &newOwner) < 0) return 0;
    if (*newOwner != '\0') static_cast<SleepSignal*>(self)->askForInhibitor();
    return 0;
}

void SleepSignal::askForInhibitor() {
    sd_bus_call_method_async(bus.get(), nullptr, loginManager, loginManagerObject,
                             loginManagerInterface, "Inhibit", &SleepSignal::inhibitorArrives, this,
                             "ssss", "sleep", "Vantry", "Prepares its connections for sleep",
                             "delay");
}

int SleepSignal::inhibitorArrives(sd_bus_message* message, void* self, sd_bus_error*) {
    auto& signal = *static_cast<SleepSignal*>(self);
    int descriptor = -1;
    if (const sd_bus_error* error = sd_bus_message_get_error(message); error != nullptr) {
        if (!std::exchange(signal.hasReportedNoInhibitor, true))
            hostChannelLog.info("The login manager gives no sleep inhibitor: %{public}s",
                                error->message == nullptr ? error->name : error->message);
        return 0;
    }
    if (sd_bus_message_read(message, "h", &descriptor) < 0) return 0;
    // The message owns its descriptors and takes them along.
    signal.inhibitor = std::make_shared<FileDescriptor>(fcntl(descriptor, F_DUPFD_CLOEXEC, 3));
    signal.hasReportedNoBus = signal.hasReportedNoInhibitor = false;
    // None is given while a machine goes to sleep: its waking was missed.
    if (signal.isAsleep) signal.machineIsAwake();
    return 0;
}

int SleepSignal::sleepIsAnnounced(sd_bus_message* message, void* self, sd_bus_error*) {
    int isAboutToSleep = 0;
    if (sd_bus_message_read(message, "b", &isAboutToSleep) < 0) return 0;
    auto& signal = *static_cast<SleepSignal*>(self);
    if (isAboutToSleep != 0)
        signal.machineWillSleep();
    else
        signal.machineIsAwake();
    return 0;
}

// The inhibitor goes with the completion: when that has run, or was dropped, the machine may sleep.
void SleepSignal::machineWillSleep() {
    if (std::exchange(isAsleep, true)) return;
    listener.sleep([held = std::move(inhibitor)] {});
}

void SleepSignal::machineIsAwake() {
    isAsleep = false;
    if (!inhibitor) askForInhibitor();
    listener.wake();
}

}  // namespace platform
