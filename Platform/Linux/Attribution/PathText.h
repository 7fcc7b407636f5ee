// Paths on Linux are bytes; the extension sees text. These two turn one into the other without loss:
// what is not valid UTF-8, every control character (C0 and C1) and every backslash is written as `\x`
// and two hexadecimal digits, so that two different paths never look alike. Any thread.
#pragma once

#include <string>
#include <string_view>

namespace platform {

std::string textOfPath(std::string_view bytes);

// The inverse. An escape that textOfPath would not have written is left as it stands.
std::string pathOfText(std::string_view text);

// `text` with the byte in the place of every such escape, whoever wrote it: the service manager writes
// the names of its units so, and escapes more.
std::string bytesOfEscapes(std::string_view text);

}  // namespace platform
