// Paths on Linux are bytes; the extension sees text. These two turn one into the other without loss:
// what is not valid UTF-8, every control character and every backslash is written as `\x` and two
// hexadecimal digits, so that two different paths never look alike. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace platform {

std::string textOfPath(std::string_view bytes);

// The inverse. An escape that textOfPath would not have written is left as it stands.
std::string pathOfText(std::string_view text);

}  // namespace platform
