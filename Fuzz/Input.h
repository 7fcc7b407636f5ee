// What the fuzz targets share. A target turns bytes into choices (which piece of text, which event, how
// long), so that both a fuzzer's bytes and a seed's mean something, and compares what the code under test
// says with a second, independent reader or with a model. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

namespace fuzz {

// Takes choices out of bytes, from the front. One that has run out gives the first of all choices.
class Input {
public:
    explicit Input(std::span<const std::uint8_t> allBytes) : bytes(allBytes) {}

    bool isEmpty() const { return bytes.empty(); }

    // A number below `bound`, which is at most 256.
    std::size_t below(std::size_t bound) {
        if (bytes.empty()) return 0;
        const std::size_t byte = bytes.front();
        bytes = bytes.subspan(1);
        return byte % bound;
    }
    bool oneIn(std::size_t chances) { return below(chances) + 1 == chances; }

    std::string_view pick(std::span<const std::string_view> pieces) {
        return pieces[below(pieces.size())];
    }

    std::string take(std::size_t longest) {
        std::string taken;
        for (auto length = below(longest + 1); length > 0 && !bytes.empty(); --length)
            taken += static_cast<char>(below(256));
        return taken;
    }

private:
    std::span<const std::uint8_t> bytes;
};

// Ends the process where `holds` does not, with what was wrong and the input as the target made it.
inline void require(bool holds, const char* what, std::string_view shown = {}) {
    if (holds) return;
    std::fprintf(stderr, "\n%s\n%s\n", what, std::string(shown).c_str());
    std::abort();
}

}  // namespace fuzz
