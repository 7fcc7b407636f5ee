// The attributes of a netlink message as they came: typed, nested, of lengths that the sender chose.
// A list ends at the first attribute that does not fit into what was received, and a value is given
// only where the attribute is long enough for it. Views into the bytes that were received; any thread.
#pragma once

#include <libmnl/libmnl.h>

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>

namespace platform::netlink {

using Bytes = std::span<const std::byte>;

class Attributes;

class Attribute {
public:
    explicit Attribute(const nlattr* received) : attribute(received) {}

    // Without the flags for nests and byte order.
    std::uint16_t type() const { return mnl_attr_get_type(attribute); }
    Bytes bytes() const {
        return {static_cast<const std::byte*>(mnl_attr_get_payload(attribute)),
                mnl_attr_get_payload_len(attribute)};
    }

    // The number at the attribute's beginning, in the byte order of the machine or of the network.
    template <std::unsigned_integral Number>
    std::optional<Number> number() const {
        return record<Number>();
    }
    template <std::unsigned_integral Number>
    std::optional<Number> networkNumber() const {
        auto number = record<Number>();
        if constexpr (std::endian::native == std::endian::little) {
            if (!number) return number;
            auto* const first = reinterpret_cast<std::byte*>(&*number);
            std::reverse(first, first + sizeof(Number));
        }
        return number;
    }

    // A structure of the kernel's at the attribute's beginning; it may have grown in newer kernels.
    template <class Record>
    std::optional<Record> record() const {
        if (bytes().size() < sizeof(Record)) return std::nullopt;
        Record record;
        std::memcpy(&record, bytes().data(), sizeof record);
        return record;
    }

    // Up to the terminating zero, or to the attribute's end where there is none.
    std::string_view text() const {
        const auto* const first = reinterpret_cast<const char*>(bytes().data());
        return {first, ::strnlen(first, bytes().size())};
    }

    // As many bytes as there are, zeros behind them: addresses of either family.
    template <std::size_t size>
    std::array<std::uint8_t, size> address() const {
        std::array<std::uint8_t, size> result{};
        std::memcpy(result.data(), bytes().data(), std::min(size, bytes().size()));
        return result;
    }

    Attributes nested() const;

private:
    const nlattr* attribute;
};

class Attributes {
public:
    // `list`: attributes one after the other, aligned as netlink aligns them.
    explicit Attributes(Bytes list) : bytes(list) {}

    class Iterator {
    public:
        using value_type = Attribute;
        using difference_type = std::ptrdiff_t;
        using iterator_category = std::input_iterator_tag;

        Iterator(const nlattr* first, const std::byte* endOfList)
            : present(first), end(endOfList) {}

        Attribute operator*() const { return Attribute(present); }
        Iterator& operator++() {
            present = mnl_attr_next(present);
            return *this;
        }
        void operator++(int) { ++*this; }
        // At the end there is no further attribute that fits.
        bool operator==(std::default_sentinel_t) const {
            const auto left = end - reinterpret_cast<const std::byte*>(present);
            return !mnl_attr_ok(present, static_cast<int>(left));
        }

    private:
        const nlattr* present;
        const std::byte* end;
    };

    Iterator begin() const {
        return {reinterpret_cast<const nlattr*>(bytes.data()), bytes.data() + bytes.size()};
    }
    std::default_sentinel_t end() const { return {}; }

    // The first attribute of the type.
    std::optional<Attribute> find(std::uint16_t type) const {
        for (const Attribute attribute : *this)
            if (attribute.type() == type) return attribute;
        return std::nullopt;
    }

private:
    Bytes bytes;
};

inline Attributes Attribute::nested() const { return Attributes(bytes()); }

}  // namespace platform::netlink
