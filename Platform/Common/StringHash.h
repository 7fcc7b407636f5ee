// Hash tables of texts that can be asked with a view, without making a string of it first.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace platform {

struct StringHash {
    using is_transparent = void;
    // Deliberately not noexcept: the library's tables then keep each hash beside its text instead of
    // computing those of the neighbours again at every look.
    std::size_t operator()(std::string_view text) const {
        return std::hash<std::string_view>{}(text);
    }
};

template <class Value>
using StringMap = std::unordered_map<std::string, Value, StringHash, std::equal_to<>>;
using StringSet = std::unordered_set<std::string, StringHash, std::equal_to<>>;

}  // namespace platform
