// A 64-bit hash (FNV-1a) whose values do not depend on the process that computes them.
#pragma once

#include <cstdint>
#include <string_view>

namespace platform {

class StableHash {
public:
    void add(std::string_view bytes) {
        for (const char byte : bytes) addByte(static_cast<unsigned char>(byte));
    }
    void add(std::uint64_t number) {
        for (int shift = 0; shift < 64; shift += 8) addByte((number >> shift) & 0xff);
    }
    std::uint64_t value() const { return state; }

private:
    void addByte(std::uint64_t byte) { state = (state ^ byte) * 0x100000001b3ULL; }
    std::uint64_t state = 0xcbf29ce484222325ULL;
};

}  // namespace platform
