// Flows as the proxy provider sees them. A flow object stands for one outbound flow of an
// application from the moment that it is offered; it is held by shared ownership, and its address
// tells flows apart while it lives. Any thread may call any operation. Contracts, for both
// platforms:
//
// - No completion runs inside the call it belongs to; each runs exactly once, also after a close,
//   and lets go of what it holds. Completions run on a thread of the platform's choice.
// - One read and one write may be outstanding at a time.
// - An opening always completes, with an error when the application's side never comes. Closing
//   before the opening has completed is legal; the opening then completes all the same.
// - After a close, operations outstanding and later ones in that direction complete with an error.
//   The first close of a direction counts, later ones do nothing.
// - A flow that was declined, or that is let go, is no longer the extension's: a claimed one that
//   was never closed is closed without an error.
// - Texts are valid UTF-8.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>

#include "Platform/Common/Completion.h"
#include "Platform/Common/Data.h"
#include "Platform/Foundation.h"

namespace platform {

// A host, by name or numeric address, and a port, both as text.
struct NWHostEndpoint {
    std::string hostname;
    std::string port;

    static NWHostEndpoint endpointWithHostname(std::string hostname, std::string port) {
        return {std::move(hostname), std::move(port)};
    }
    friend bool operator==(const NWHostEndpoint&, const NWHostEndpoint&) = default;
};

// An endpoint of any kind but a host: a service, a socket path.
struct NWOtherEndpoint {
    friend bool operator==(const NWOtherEndpoint&, const NWOtherEndpoint&) = default;
};

// The far end of a flow: missing, a host, or of another kind.
using RemoteEndpoint = std::variant<std::monostate, NWHostEndpoint, NWOtherEndpoint>;

// The host endpoint in `endpoint`, or null if it is none.
inline const NWHostEndpoint* hostEndpoint(const RemoteEndpoint& endpoint) {
    return std::get_if<NWHostEndpoint>(&endpoint);
}

// Who made a flow.
struct NEFlowMetaData {
    std::string sourceAppSigningIdentifier;  // empty when the platform could not tell
    std::optional<Data> sourceAppAuditToken;
};

inline constexpr const char* NEAppProxyErrorDomain = "NEAppProxyErrorDomain";
// The application's peer reset the flow.
inline constexpr long NEAppProxyFlowErrorPeerReset = 2;

class NEAppProxyFlow {
public:
    virtual ~NEAppProxyFlow() = default;
    NEAppProxyFlow(const NEAppProxyFlow&) = delete;
    NEAppProxyFlow& operator=(const NEAppProxyFlow&) = delete;

    const NEFlowMetaData& metaData() const { return metaData_; }
    const RemoteEndpoint& remoteEndpoint() const { return remoteEndpoint_; }

protected:
    NEAppProxyFlow(NEFlowMetaData metaData, RemoteEndpoint remoteEndpoint)
        : metaData_(std::move(metaData)), remoteEndpoint_(std::move(remoteEndpoint)) {}

private:
    const NEFlowMetaData metaData_;
    const RemoteEndpoint remoteEndpoint_;
};

class NEAppProxyTCPFlow final : public NEAppProxyFlow {
public:
    using ErrorCompletion = Completion<std::optional<NSError>>;
    using ReadCompletion = Completion<std::optional<Data>, std::optional<NSError>>;

    class Implementation;
    // Made by the platform.
    NEAppProxyTCPFlow(NEFlowMetaData metaData, RemoteEndpoint remoteEndpoint,
                      std::shared_ptr<Implementation> implementation);
    ~NEAppProxyTCPFlow() override;

    // Takes the flow over from the application. The local endpoint is not chosen by the caller
    // (nothing is passed). Called once, before any other operation but the closes.
    void openWithLocalEndpoint(std::nullptr_t localEndpoint, ErrorCompletion completion);

    // Delivers the next bytes from the application. No data or empty data: it has ended its
    // sending.
    void readData(ReadCompletion completion);

    // Hands bytes to the application, all of them; completes when it can take more.
    void writeData(Data data, ErrorCompletion completion);

    // Ends one direction. Without an error the application sees an orderly end behind all bytes
    // already written; with one its socket fails with a reset.
    void closeReadWithError(std::optional<NSError> error);
    void closeWriteWithError(std::optional<NSError> error);

    const std::shared_ptr<Implementation>& platformSide() const { return implementation; }

private:
    const std::shared_ptr<Implementation> implementation;
};

// Only looked at, never opened: datagram flows stay with the operating system.
class NEAppProxyUDPFlow final : public NEAppProxyFlow {
public:
    NEAppProxyUDPFlow(NEFlowMetaData metaData, RemoteEndpoint remoteEndpoint)
        : NEAppProxyFlow(std::move(metaData), std::move(remoteEndpoint)) {}
};

// A flow of neither kind.
class NEAppProxyOtherFlow final : public NEAppProxyFlow {
public:
    NEAppProxyOtherFlow(NEFlowMetaData metaData, RemoteEndpoint remoteEndpoint)
        : NEAppProxyFlow(std::move(metaData), std::move(remoteEndpoint)) {}
};

}  // namespace platform
