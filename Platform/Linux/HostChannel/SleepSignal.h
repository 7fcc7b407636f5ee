// The machine's sleep and wake, as the login manager announces them on the system bus. It holds a
// delay inhibitor, so that the machine sleeps only once the listener has said that it is ready. It
// lives on one event loop; all of it runs on that loop's thread. A bus that is missing or goes away is
// looked for again for as long as the object lives.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Platform/Common/Completion.h"
#include "Platform/Linux/FileDescriptor.h"

namespace platform {

class SleepSignal {
public:
    struct Listener {
        // The machine is about to sleep: it waits, for a few seconds at most, until the completion has
        // run or is let go.
        std::function<void(Completion<>)> sleep;
        std::function<void()> wake;
    };

    SleepSignal(sd_event& eventLoop, Listener listener);
    ~SleepSignal();
    SleepSignal(const SleepSignal&) = delete;
    SleepSignal& operator=(const SleepSignal&) = delete;

private:
    struct CloseBus {
        void operator()(sd_bus* toClose) const { sd_bus_close_unref(toClose); }
    };
    struct DropSource {
        void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
    };

    void connect();
    int openBus();
    int watchBus();
    void connectLater();
    void askForInhibitor();
    void machineWillSleep();
    void machineIsAwake();

    static int retryIsDue(sd_event_source* source, std::uint64_t time, void* self);
    static int busIsGone(sd_bus_message* message, void* self, sd_bus_error* error);
    static int loginManagerCameOrWent(sd_bus_message* message, void* self, sd_bus_error* error);
    static int sleepIsAnnounced(sd_bus_message* message, void* self, sd_bus_error* error);
    static int inhibitorArrives(sd_bus_message* message, void* self, sd_bus_error* error);

    sd_event& loop;
    const Listener listener;
    const std::string address;
    std::unique_ptr<sd_event_source, DropSource> retry;
    std::unique_ptr<sd_bus, CloseBus> bus;
    std::shared_ptr<FileDescriptor> inhibitor;
    bool isAsleep = false;
    bool hasReportedNoBus = false;
    bool hasReportedNoInhibitor = false;
};

}  // namespace platform
