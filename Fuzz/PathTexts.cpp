// Paths as text: every path comes back from its text, and no other text is read as one.

#include <algorithm>

#include "Fuzz/Input.h"
#include "Platform/Common/Text.h"
#include "Platform/Linux/Attribution/PathText.h"

namespace {

std::string anyBytes(fuzz::Input& input) {
    static constexpr std::string_view pieces[] = {
        "/",    "a",    "\\", "\\x",  "\\x41",    "\\xc3",      "\\xa9", "\\x0a",
        "\xc3", "\xa9", "\n", "\x7f", "\xc2\x9b", "\\xc2\\x9b", "\\x5c", "\xf0\x9f\x98\x80"};
    std::string bytes;
    while (!input.isEmpty()) bytes += input.oneIn(4) ? input.take(2) : input.pick(pieces);
    return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input({data, size});
    const auto bytes = anyBytes(input);
    const auto text = platform::textOfPath(bytes);
    fuzz::require(platform::isValidUTF8(text), "the text is no UTF-8", text);
    fuzz::require(!platform::holdsControlCharacter(text), "the text holds a control", text);
    fuzz::require(platform::pathOfText(text) == bytes, "the path does not come back", text);
    fuzz::require(platform::bytesOfEscapes(text) == bytes, "nor by its escapes", text);

    // Taken for a text instead: where each backslash began an escape that was read, this is how the path
    // would have been written.
    const auto path = platform::pathOfText(bytes);
    const auto backslashes = static_cast<std::size_t>(std::ranges::count(bytes, '\\'));
    if (platform::isValidUTF8(bytes) && !platform::holdsControlCharacter(bytes) &&
        path.size() + 3 * backslashes == bytes.size())
        fuzz::require(platform::textOfPath(path) == bytes, "another path's text was read", bytes);
    return 0;
}
