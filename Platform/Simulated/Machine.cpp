#include "Platform/Simulated/Machine.h"

#include <memory>

namespace platform::simulated {
namespace {

std::unique_ptr<Machine>& installed() {
    static std::unique_ptr<Machine> present;
    return present;
}

std::atomic<Machine*> presentMachine = nullptr;

}  // namespace

Machine::Machine(const Options& options)
    : scheduler(options),
      mainQueue(scheduler.makeLane()),
      wallClock(scheduler),
      files(scheduler),
      notifications(scheduler),
      preferences(scheduler),
      network(scheduler),
      providers(scheduler) {}

Machine::~Machine() { end(); }

void Machine::end() {
    ending = true;
    scheduler.end();
    network.end();
    providers.letGoOfProxy();
    providers.letGoOfFilter();
}

Machine& machine() {
    if (auto* present = presentMachine.load(std::memory_order_acquire)) return *present;
    static Machine withoutWorld{Options{}};
    return withoutWorld;
}

void replaceMachine(const Options& options) {
    auto fresh = std::make_unique<Machine>(options);
    presentMachine.store(fresh.get(), std::memory_order_release);
    installed().swap(fresh);
}

}  // namespace platform::simulated
