// The operations of the seam, on the machine of a recording: what the core is told, and where what it does
// is noted.
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <set>
#include <utility>

#include "Platform/Common/JSON.h"
#include "Platform/DarwinNotifications.h"
#include "Platform/Foundation.h"
#include "Platform/InterfaceAddresses.h"
#include "Platform/LibProc.h"
#include "Platform/Logging.h"
#include "Platform/Replayed/Machine.h"
#include "Platform/TunnelGuard.h"

namespace platform {

using replayed::checkNoFieldLockIsHeld;
using replayed::Machine;

namespace {

// There is one thread.
std::set<const NSLock*> locksHeld;
int fieldLocksHeld = 0;

// The recording's own beginning; only what lies between two moments counts.
constexpr double beginningOfRecordings = 1.7e9;

}  // namespace

void replayed::checkNoFieldLockIsHeld(const char* call) {
    if (fieldLocksHeld > 0)
        Machine::shared().breach(std::string(call) + " was called under a lock that guards fields");
}

void NSLock::lock() {
    if (!locksHeld.insert(this).second) {
        std::cerr << "The core waits for a lock that it holds itself.\n";
        std::exit(EXIT_FAILURE);
    }
    if (use == Use::fieldsOnly) ++fieldLocksHeld;
}

void NSLock::unlock() {
    locksHeld.erase(this);
    if (use == Use::fieldsOnly && --fieldLocksHeld == 0) Machine::shared().step();
}

Date Date::now() { return since1970(beginningOfRecordings + Machine::shared().now()); }

UUID UUID::random() {
    static std::uint64_t count = 0;
    Bytes bytes{};
    ++count;
    std::memcpy(bytes.data(), &count, sizeof count);
    return randomFrom(bytes);
}

void Logger::write(LogLevel, std::string_view format,
                   std::span<const LogArgument> arguments) const {
    if (Machine::shared().isLogWanted)
        std::cout << "  " << category_ << ": " << formatLogLine(format, arguments, false) << '\n';
}

// Files. What the core writes is not recorded, and goes nowhere.

NSFileManager& NSFileManager::defaultManager() {
    static NSFileManager manager;
    return manager;
}

std::optional<Data> NSFileManager::contentsAtPath(std::string_view path) {
    checkNoFieldLockIsHeld("contentsAtPath");
    const auto* answer = Machine::shared().answerTo("file", path);
    const auto text = answer ? answer->at(2).value() : std::nullopt;
    return text ? std::optional(Data(*text)) : std::nullopt;
}

std::optional<NSError> NSFileManager::writeAtomically(std::string_view, std::string_view) {
    return std::nullopt;
}
std::optional<NSError> NSFileManager::write(std::string_view, std::string_view) {
    return std::nullopt;
}
bool NSFileManager::setPosixPermissions(int, std::string_view) { return true; }
bool NSFileManager::removeItemAtPath(std::string_view) { return true; }
std::optional<std::string> NSFileManager::containerURLForSecurityApplicationGroupIdentifier(
    std::string_view) {
    return std::nullopt;
}

// Processes and bundles.

std::optional<NSBundle> NSBundle::bundleWithPath(std::string_view path) {
    const auto* answer = Machine::shared().answerTo("bundle", path);
    if (!answer || answer->at(2).number() == 0) return std::nullopt;
    return NSBundle(answer->at(3).value());
}

int proc_pidinfo(std::int32_t pid, int, std::uint64_t, proc_bsdinfo& info) {
    const auto* answer = Machine::shared().answerTo("parent", std::to_string(pid));
    if (!answer || !answer->at(2).value()) return 0;
    info.pbi_ppid = static_cast<std::uint32_t>(answer->at(2).number());
    return static_cast<int>(sizeof info);
}

int proc_pidpath(std::int32_t pid, char* buffer, std::uint32_t size) {
    const auto* answer = Machine::shared().answerTo("executable", std::to_string(pid));
    const auto path = answer ? answer->at(2).value() : std::nullopt;
    if (!path || path->size() >= size) return 0;
    std::memcpy(buffer, path->c_str(), path->size() + 1);
    return static_cast<int>(path->size());
}

// Addresses of interfaces are for the log of flows alone, and not recorded.
int getifaddrs(struct ::ifaddrs** list) {
    *list = nullptr;
    return 0;
}
void freeifaddrs(struct ::ifaddrs*) {}
int getnameinfo(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int) {
    return EAI_NONAME;
}

void keepWatchedFlowsInTunnel(bool isWanted, bool isVpnConnected) {
    Machine::shared().ask(std::string("tunnelGuard ") + (isWanted ? "1 " : "0 ") +
                          (isVpnConnected ? "1" : "0"));
}

// Queues.

void DispatchQueue::async(Work work) const { Machine::shared().later(0, std::move(work)); }
void DispatchQueue::asyncAfter(double seconds, Work work) const {
    Machine::shared().later(seconds, std::move(work));
}

// Notifications.

class CFNotificationCenter {};

CFNotificationCenter& CFNotificationCenterGetDarwinNotifyCenter() {
    static CFNotificationCenter center;
    return center;
}

void CFNotificationCenterAddObserver(CFNotificationCenter&, void* observer,
                                     CFNotificationCallback callback, std::string_view, const void*,
                                     CFNotificationSuspensionBehavior) {
    Machine::shared().observers.emplace_back(observer, callback);
}

void CFNotificationCenterRemoveEveryObserver(CFNotificationCenter&, void* observer) {
    std::erase_if(Machine::shared().observers,
                  [observer](const auto& each) { return each.first == observer; });
}

// Providers.

std::shared_ptr<const NEVPNProtocol> NETransparentProxyProvider::protocolConfiguration() const {
    const auto* answer = Machine::shared().answerTo("configuration", "");
    const auto text = answer ? answer->at(1).value() : std::nullopt;
    if (!text) return nullptr;
    const auto document = NSJSONSerialization::JSONObjectWithData(*text);
    const auto* object = document ? document->as<JSONObject>() : nullptr;
    return std::make_shared<NETunnelProviderProtocol>(
        std::nullopt, object ? std::optional(*object) : std::nullopt);
}

void NETransparentProxyProvider::setTunnelNetworkSettings(
    NETransparentProxyNetworkSettings settings, ErrorCompletion completion) {
    Machine::shared().ask("proxySettings " +
                          std::to_string(settings.includedNetworkRules().size()));
    Machine::shared().proxySettings.push_back(std::move(completion));
}

void NETransparentProxyProvider::setRulesChanging(bool areChanging) {
    Machine::shared().ask(areChanging ? "rulesChanging 1" : "rulesChanging 0");
}

void NEFilterDataProvider::applySettings(NEFilterSettings settings, ErrorCompletion completion) {
    Machine::shared().ask("filterSettings " +
                          std::to_string(static_cast<int>(settings.defaultAction)));
    Machine::shared().filterSettings.push_back(std::move(completion));
}

void NETunnelProviderManager::loadAllFromPreferences(LoadCompletion completion) {
    Machine::shared().ask("tunnels");
    Machine::shared().loads.push_back(std::move(completion));
}

// The network.

class NWPathMonitor::Implementation {
public:
    std::shared_ptr<std::function<void(const NWPath&)>> handler;
};

NWPathMonitor::NWPathMonitor() : implementation(std::make_shared<Implementation>()) {}
NWPathMonitor::~NWPathMonitor() = default;
void NWPathMonitor::setPathUpdateHandler(std::function<void(const NWPath&)> handler) {
    implementation->handler =
        std::make_shared<std::function<void(const NWPath&)>>(std::move(handler));
}
void NWPathMonitor::start(DispatchQueue) {
    Machine::shared().pathHandler = implementation->handler;
}
void NWPathMonitor::cancel() {
    auto& handler = Machine::shared().pathHandler;
    if (handler == implementation->handler) handler.reset();
}

// Flows and connections.

namespace {

std::string withError(const char* action, const std::optional<NSError>& error) {
    return std::string(action) + (error ? " " + std::to_string(error->code) : "");
}

template <class Outstanding>
void keepOne(Outstanding& place, Outstanding completion, const char* action) {
    checkNoFieldLockIsHeld(action);
    if (place)
        Machine::shared().breach(std::string("a second ") + action + " before the first came");
    place = std::move(completion);
}

}  // namespace

class NEAppProxyTCPFlow::Implementation {
public:
    std::uint64_t number = 0;

    replayed::Session& session() const { return Machine::shared().session(number); }
};

class NWConnection::Implementation {
public:
    std::uint64_t number = 0;

    replayed::Session& session() const { return Machine::shared().session(number); }
};

namespace replayed {

std::shared_ptr<NEAppProxyTCPFlow> flowOf(std::uint64_t number, NEFlowMetaData metaData,
                                          RemoteEndpoint remote) {
    auto implementation = std::make_shared<NEAppProxyTCPFlow::Implementation>();
    implementation->number = number;
    return std::make_shared<NEAppProxyTCPFlow>(std::move(metaData), std::move(remote),
                                               std::move(implementation));
}

}  // namespace replayed

NEAppProxyTCPFlow::NEAppProxyTCPFlow(NEFlowMetaData metaData, RemoteEndpoint remoteEndpoint,
                                     std::shared_ptr<Implementation> platformSide)
    : NEAppProxyFlow(std::move(metaData), std::move(remoteEndpoint)),
      implementation(std::move(platformSide)) {}
NEAppProxyTCPFlow::~NEAppProxyTCPFlow() = default;

void NEAppProxyTCPFlow::openWithLocalEndpoint(std::nullptr_t, ErrorCompletion completion) {
    keepOne(implementation->session().opening, std::move(completion), "open");
    Machine::shared().act(implementation->number, "open");
}
void NEAppProxyTCPFlow::readData(ReadCompletion completion) {
    keepOne(implementation->session().reading, std::move(completion), "read");
}
void NEAppProxyTCPFlow::writeData(Data, ErrorCompletion completion) {
    keepOne(implementation->session().writing, std::move(completion), "write");
}
void NEAppProxyTCPFlow::closeReadWithError(std::optional<NSError> error) {
    Machine::shared().act(implementation->number, withError("closeRead", error));
}
void NEAppProxyTCPFlow::closeWriteWithError(std::optional<NSError> error) {
    Machine::shared().act(implementation->number, withError("closeWrite", error));
}

NWConnection::NWConnection(NWEndpoint::Host host, NWEndpoint::Port port, NWParameters parameters)
    : implementation(std::make_shared<Implementation>()) {
    implementation->number = Machine::shared().presentNumber();
    const auto& interface = parameters.requiredInterface;
    Machine::shared().act(implementation->number, "connect " + host.text() + " " +
                                                      std::to_string(port.rawValue()) + " " +
                                                      (interface ? interface->name() : ""));
}
NWConnection::~NWConnection() = default;
void NWConnection::setStateUpdateHandler(std::function<void(const State&)> handler) {
    implementation->session().stateHandler = std::move(handler);
}
void NWConnection::start(DispatchQueue) { Machine::shared().act(implementation->number, "start"); }
void NWConnection::cancel() { Machine::shared().act(implementation->number, "cancel"); }
void NWConnection::holdBack() { Machine::shared().holdBack(implementation->number); }
void NWConnection::send(Data, ContentContext, bool, SendCompletion completion) {
    keepOne(implementation->session().sending, std::move(completion), "send");
}
void NWConnection::receive(std::size_t, std::size_t, ReceiveCompletion completion) {
    keepOne(implementation->session().receiving, std::move(completion), "receive");
}

}  // namespace platform
