#include "Platform/Simulated/World.h"

#include <atomic>
#include <cstdlib>

#include "Platform/Simulated/Contracts.h"

namespace platform::simulated {
namespace {

std::atomic<bool> aWorldLives = false;

Machine& freshMachine(const Options& options) {
    if (aWorldLives.exchange(true)) breach("a world is made while another one lives");
    replaceMachine(options);
    return machine();
}

}  // namespace

World::World(const Options& options)
    : scheduler(freshMachine(options).scheduler),
      logged(machine().log),
      clock(machine().wallClock),
      files(machine().files),
      processes(machine().processes),
      interfaces(machine().interfaces),
      notifications(machine().notifications),
      preferences(machine().preferences),
      network(machine().network),
      providers(machine().providers),
      flows(machine().flows) {
    Logger::setLowestLevel(LogLevel::debug);
}

World::~World() {
    machine().end();
    if (interfaces.listsOutstanding() > 0)
        breach("a list of getifaddrs was never given to freeifaddrs");
    aWorldLives = false;
}

void World::later(Completion<> work, double seconds) {
    if (seconds > 0)
        scheduler.startTimer(seconds, "the story", std::move(work));
    else
        scheduler.deliver("the story", std::move(work));
}

Process World::application(const std::string& name, const std::string& identifier) {
    const std::string bundlePath = "/Applications/" + name + ".app";
    bundle(bundlePath, identifier);
    return process(
        {.path = bundlePath + "/Contents/MacOS/" + name, .signingIdentifier = identifier});
}

Flow World::tcpFlow(const Process& process, std::string host, std::string port) {
    FlowDescription description;
    description.remoteEndpoint =
        NWHostEndpoint::endpointWithHostname(std::move(host), std::move(port));
    description.signingIdentifier = process.signingIdentifier;
    description.auditToken = process.auditToken();
    return Flow(std::move(description));
}

bool World::start() {
    const auto filterStart = startFilter();
    const auto proxyStart = startProxy();
    runUntilIdle();
    return filterStart.succeeded() && proxyStart.succeeded();
}

namespace {

std::optional<std::uint64_t> numberFromEnvironment(const char* name) {
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0') return std::nullopt;
    return std::strtoull(text, nullptr, 10);
}

}  // namespace

std::optional<std::uint64_t> seedFromEnvironment() { return numberFromEnvironment("SEED"); }
std::optional<std::uint64_t> seedsFromEnvironment() { return numberFromEnvironment("SEEDS"); }

}  // namespace platform::simulated
