// Outgoing connections and the view of the machine's network. Contracts, for both platforms:
//
// - No completion runs inside the call it belongs to. Each runs exactly once and lets go of what it
//   holds.
// - All callbacks of a connection run on the queue given to `start`, which is a concurrent one: the
//   completions of a send and of a receive may overlap each other and a state update. State updates
//   of one connection come one at a time, in order.
// - After `cancel`, operations outstanding complete once with an error, then the final `.cancelled`
//   state follows (if the connection had been started), then nothing. `start` after `cancel`
//   connects nothing.
// - Objects may be let go at any time, also from their own callbacks.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Data.h"
#include "Platform/Dispatch.h"
#include "Platform/Foundation.h"

namespace platform {

// A network interface as of one moment; a plain value.
class NWInterface {
public:
    enum class InterfaceType { other, wifi, cellular, wiredEthernet, loopback };

    NWInterface(std::string interfaceName, InterfaceType interfaceType)
        : name_(std::move(interfaceName)), type_(interfaceType) {}

    const std::string& name() const { return name_; }
    InterfaceType type() const { return type_; }

    friend bool operator==(const NWInterface&, const NWInterface&) = default;

private:
    std::string name_;
    InterfaceType type_;
};

// The printed form of a type: "wifi", "wiredEthernet", ...
std::string_view describe(NWInterface::InterfaceType type);

// The usable interfaces, the system's preferred one first.
struct NWPath {
    std::vector<NWInterface> availableInterfaces;
};

// Follows the machine's network. The handler is set once, before `start`; it gets the present path
// soon after `start` and the new one at every change, one call at a time on the queue given.
// `cancel` ends delivery; one that is under way may still be running. A monitor that is let go
// while it runs ends by itself.
class NWPathMonitor {
public:
    // A monitor for interfaces of every type.
    NWPathMonitor();
    ~NWPathMonitor();
    NWPathMonitor(const NWPathMonitor&) = delete;
    NWPathMonitor& operator=(const NWPathMonitor&) = delete;

    void setPathUpdateHandler(std::function<void(const NWPath&)> handler);
    void start(DispatchQueue queue);
    void cancel();

    class Implementation;

private:
    std::shared_ptr<Implementation> implementation;
};

class NWEndpoint {
public:
    // A host name or a numeric address; any text makes one.
    class Host {
    public:
        explicit Host(std::string text) : text_(std::move(text)) {}
        const std::string& text() const { return text_; }

    private:
        std::string text_;
    };

    class Port {
    public:
        // A decimal number of 16 bits; nothing for any other text.
        static std::optional<Port> fromString(std::string_view text);
        std::uint16_t rawValue() const { return value; }

    private:
        explicit Port(std::uint16_t number) : value(number) {}
        std::uint16_t value;
    };
};

struct NWParameters {
    // Default parameters of a TCP connection.
    static NWParameters tcp() { return {}; }

    // Restricts the connection to this interface.
    std::optional<NWInterface> requiredInterface;
};

// One outgoing TCP connection, used through shared ownership; any thread may call any operation.
class NWConnection {
public:
    struct State {
        enum class Kind { setup, waiting, preparing, ready, failed, cancelled };
        Kind kind = Kind::setup;
        std::optional<NSError> error;  // with waiting and failed
    };
    // What a piece of content belongs to. TCP has one context, the default message, and completing
    // it leaves the stream open.
    enum class ContentContext { defaultMessage };

    using SendCompletion = Completion<std::optional<NSError>>;
    using ReceiveCompletion = Completion<std::optional<Data>, ContentContext, bool /* isComplete */,
                                         std::optional<NSError>>;

    // Does nothing until started.
    NWConnection(NWEndpoint::Host host, NWEndpoint::Port port, NWParameters parameters);
    // A connection that is let go is cancelled.
    ~NWConnection();
    NWConnection(const NWConnection&) = delete;
    NWConnection& operator=(const NWConnection&) = delete;

    // Set before `start`; gets each new state. Held until the final state has been delivered or the
    // connection is let go.
    void setStateUpdateHandler(std::function<void(const State&)> handler);

    // Begins connecting: resolves the host, tries its addresses. A host that cannot be reached now
    // gives `.waiting` and is tried again when the path changes; one that refuses gives `.failed`.
    void start(DispatchQueue queue);

    // Ends the connection. Harmless at any time, any number of times.
    void cancel();

    // From now on no byte of content leaves or arrives, although the connection goes on: sends and
    // receives that are outstanding, and later ones, stay so until the connection ends. What has not
    // left by then is dropped. Harmless at any time, any number of times; there is no way back.
    void holdBack();

    // Writes `content`, all of it; the completion gets an error if that failed. One send at a time.
    // `isComplete` ends a message, which a TCP stream does not notice: it never closes the stream.
    void send(Data content, ContentContext context, bool isComplete, SendCompletion completion);

    // Delivers the next bytes, at least the minimum unless the stream ends first, at most
    // `maximumLength`. `isComplete` is true with the stream's last bytes, or alone with none. One
    // receive at a time.
    void receive(std::size_t minimumIncompleteLength, std::size_t maximumLength,
                 ReceiveCompletion completion);

    class Implementation;

private:
    std::shared_ptr<Implementation> implementation;
};

}  // namespace platform
