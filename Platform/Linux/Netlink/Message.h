// Netlink messages: those that came, as views whose lengths have been checked, and those to be sent,
// in room of their own that is never overrun. Plain values on one thread.
#pragma once

#include <libmnl/libmnl.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <type_traits>

#include "Platform/Linux/Netlink/Attributes.h"
#include "Platform/Linux/Result.h"

namespace platform::netlink {

// A message that was received whole.
class Message {
public:
    explicit Message(const nlmsghdr& received) : message(&received) {}

    const nlmsghdr& header() const { return *message; }
    std::uint16_t type() const { return message->nlmsg_type; }
    Bytes payload() const {
        return {static_cast<const std::byte*>(mnl_nlmsg_get_payload(message)),
                mnl_nlmsg_get_payload_len(message)};
    }

    // The structure that the message begins with, after netlink's own header; null if the message
    // is shorter.
    template <class Header>
    std::optional<Header> fixedHeader() const {
        if (payload().size() < sizeof(Header)) return std::nullopt;
        Header header;
        std::memcpy(&header, payload().data(), sizeof header);
        return header;
    }

    // What comes after a fixed header of that type.
    template <class Header>
    Attributes attributes() const {
        constexpr std::size_t start = MNL_ALIGN(sizeof(Header));
        return Attributes(payload().size() < start ? Bytes() : payload().subspan(start));
    }

private:
    const nlmsghdr* message;
};

// Shows each message in what one read gave, up to the first one that does not fit into it.
template <class Visit>
void forEachMessage(Bytes received, Visit&& visit) {
    // Lengths are compared without a sign: libmnl's own test takes one of over 2 GiB for a negative number.
    while (received.size() >= sizeof(nlmsghdr)) {
        const auto& message = *reinterpret_cast<const nlmsghdr*>(received.data());
        if (message.nlmsg_len < sizeof message || message.nlmsg_len > received.size()) return;
        visit(Message(message));
        const std::size_t whole = MNL_ALIGN(std::size_t{message.nlmsg_len});
        if (whole >= received.size()) return;
        received = received.subspan(whole);
    }
}

// A message to be sent. What does not fit into its room is left out, and the message then counts as
// broken, which a socket refuses to send.
class Request {
public:
    // `flags` beside NLM_F_REQUEST. `header` is the fixed structure that the message begins with.
    template <class Header>
    requires std::is_trivially_copyable_v<Header> Request(unsigned type, unsigned flags,
                                                          const Header& header)
        : Request(type, flags) {
        std::memcpy(mnl_nlmsg_put_extra_header(message(), sizeof header), &header, sizeof header);
    }
    Request(unsigned type, unsigned flags);

    Request& put(unsigned type, Bytes bytes);
    template <class Value>
    requires(std::is_trivially_copyable_v<Value> &&
             !std::convertible_to<Value, Bytes>) Request& put(unsigned type, const Value& value) {
        return put(type, std::as_bytes(std::span(&value, 1)));
    }

    // What `fill` puts becomes the inside of one attribute.
    template <class Fill>
    Request& nest(unsigned type, Fill fill) {
        nlattr* const nest = mnl_attr_nest_start_check(message(), capacity, narrow(type));
        if (!nest) return breakOff();
        fill();
        mnl_attr_nest_end(message(), nest);
        return *this;
    }

    bool isWhole() const { return !isBroken; }
    Bytes bytes() { return std::as_bytes(std::span(room).first(message()->nlmsg_len)); }
    nlmsghdr* message() { return reinterpret_cast<nlmsghdr*>(room.data()); }

    static constexpr std::size_t capacity = 512;

private:
    static std::uint16_t narrow(unsigned number) { return static_cast<std::uint16_t>(number); }
    Request& breakOff() {
        isBroken = true;
        return *this;
    }

    alignas(nlmsghdr) std::array<char, capacity> room;
    bool isBroken = false;
};

}  // namespace platform::netlink
