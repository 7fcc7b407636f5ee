// Flows, settings and verdicts of the filter provider. All are plain values; a flow is borrowed for
// the length of one call. Texts are valid UTF-8.
#pragma once

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

#include "Platform/Common/Data.h"
#include "Platform/NEAppProxyFlow.h"

namespace platform {

class NEFilterFlow {
public:
    explicit NEFilterFlow(std::optional<Data> sourceAppAuditToken)
        : sourceAppAuditToken_(std::move(sourceAppAuditToken)) {}
    virtual ~NEFilterFlow() = default;
    NEFilterFlow(const NEFilterFlow&) = delete;
    NEFilterFlow& operator=(const NEFilterFlow&) = delete;

    // Who made the flow; nothing when the platform could not tell.
    const std::optional<Data>& sourceAppAuditToken() const { return sourceAppAuditToken_; }

private:
    const std::optional<Data> sourceAppAuditToken_;
};

class NEFilterSocketFlow final : public NEFilterFlow {
public:
    // `socketType`: 1 a stream socket, 2 a datagram socket (SOCK_STREAM, SOCK_DGRAM).
    NEFilterSocketFlow(std::optional<Data> sourceAppAuditToken, int socketType,
                       RemoteEndpoint remoteEndpoint)
        : NEFilterFlow(std::move(sourceAppAuditToken)),
          socketType_(socketType),
          remoteEndpoint_(std::move(remoteEndpoint)) {}

    int socketType() const { return socketType_; }
    const RemoteEndpoint& remoteEndpoint() const { return remoteEndpoint_; }

private:
    const int socketType_;
    const RemoteEndpoint remoteEndpoint_;
};

// What the filter says of a new flow: it passes and is not seen again, it is killed, or it passes
// and its bytes are shown as they come.
class NEFilterNewFlowVerdict {
public:
    enum class Kind { allow, drop, filterData };

    static NEFilterNewFlowVerdict allowVerdict() { return NEFilterNewFlowVerdict(Kind::allow); }
    static NEFilterNewFlowVerdict dropVerdict() { return NEFilterNewFlowVerdict(Kind::drop); }
    static NEFilterNewFlowVerdict filterDataVerdict(bool filterInbound,
                                                    std::size_t peekInboundBytes,
                                                    bool filterOutbound,
                                                    std::size_t peekOutboundBytes) {
        NEFilterNewFlowVerdict verdict(Kind::filterData);
        verdict.filterInbound = filterInbound;
        verdict.peekInboundBytes = peekInboundBytes;
        verdict.filterOutbound = filterOutbound;
        verdict.peekOutboundBytes = peekOutboundBytes;
        return verdict;
    }

    friend bool operator==(const NEFilterNewFlowVerdict&, const NEFilterNewFlowVerdict&) = default;

    Kind kind;
    bool filterInbound = false;
    std::size_t peekInboundBytes = 0;
    bool filterOutbound = false;
    std::size_t peekOutboundBytes = 0;

private:
    explicit NEFilterNewFlowVerdict(Kind verdictKind) : kind(verdictKind) {}
};

// What the filter says of bytes of a watched flow: it passes and is not seen again, it is killed,
// or `passBytes` go through and the flow comes back once `peekBytes` more are there.
class NEFilterDataVerdict {
public:
    enum class Kind { allow, drop, data };

    static NEFilterDataVerdict allowVerdict() { return NEFilterDataVerdict(Kind::allow, 0, 0); }
    static NEFilterDataVerdict dropVerdict() { return NEFilterDataVerdict(Kind::drop, 0, 0); }
    static NEFilterDataVerdict dataVerdict(std::size_t passBytes, std::size_t peekBytes) {
        return NEFilterDataVerdict(Kind::data, passBytes, peekBytes);
    }

    friend bool operator==(const NEFilterDataVerdict&, const NEFilterDataVerdict&) = default;

    Kind kind;
    std::size_t passBytes;
    std::size_t peekBytes;

private:
    NEFilterDataVerdict(Kind verdictKind, std::size_t pass, std::size_t peek)
        : kind(verdictKind), passBytes(pass), peekBytes(peek) {}
};

// A rule that exempts flows from the default action. The extension makes none.
struct NEFilterRule {
    friend bool operator==(const NEFilterRule&, const NEFilterRule&) = default;
};

enum class NEFilterAction { allow = 1, drop = 2, remediate = 3, filterData = 4 };

// Which flows the filter is asked about: those that no rule exempts, by the default action.
struct NEFilterSettings {
    std::vector<NEFilterRule> rules;
    NEFilterAction defaultAction;

    friend bool operator==(const NEFilterSettings&, const NEFilterSettings&) = default;
};

}  // namespace platform
