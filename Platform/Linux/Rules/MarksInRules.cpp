#include "Platform/Linux/Rules/MarksInRules.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <charconv>
#include <optional>
#include <string>
#include <vector>

namespace platform::interception {

namespace {

using Words = std::vector<std::string_view>;

bool isSeparator(char letter) {
    return std::isspace(static_cast<unsigned char>(letter)) != 0 || letter == '{' ||
           letter == '}' || letter == '(' || letter == ')';
}

// Without what stands in quotes: names and comments may hold anything.
std::string withoutTexts(std::string_view line) {
    std::string rest;
    bool isText = false;
    for (const char letter : line) {
        if (letter == '"') isText = !isText;
        rest += isText || letter == '"' ? ' ' : letter;
    }
    return rest;
}

Words wordsOf(std::string_view line) {
    Words words;
    while (!line.empty()) {
        const auto end = std::find_if(line.begin(), line.end(), isSeparator);
        const auto length = static_cast<std::size_t>(end - line.begin());
        std::string_view word = line.substr(0, length);
        if (word.ends_with(',')) word.remove_suffix(1);
        if (!word.empty()) words.push_back(word);
        line.remove_prefix(std::min(length + 1, line.size()));
    }
    return words;
}

std::optional<std::uint32_t> numberIn(std::string_view word, bool mayBeDecimal) {
    const bool isHexadecimal = word.starts_with("0x");
    if (!isHexadecimal && !mayBeDecimal) return std::nullopt;
    if (isHexadecimal) word.remove_prefix(2);
    std::uint32_t number = 0;
    const auto read =
        std::from_chars(word.data(), word.data() + word.size(), number, isHexadecimal ? 16 : 10);
    const bool isWhole = read.ec == std::errc() && read.ptr == word.data() + word.size();
    return isWhole ? std::optional(number) : std::nullopt;
}

// Every bit that is set in any of the numbers from `first` to `last`.
std::uint32_t bitsBetween(std::uint32_t first, std::uint32_t last) {
    const auto below = static_cast<unsigned>(std::bit_width(first ^ last));
    const std::uint32_t varying = below == 32 ? ~0u : (1u << below) - 1;
    return first | last | varying;
}

// A number, a range of two, or a prefix with its length.
std::uint32_t bitsInWord(std::string_view word) {
    const auto split = word.find_first_of("-/");
    const auto first = numberIn(word.substr(0, split), false);
    if (!first || split == std::string_view::npos) return first.value_or(0);
    const bool isPrefix = word[split] == '/';
    const auto second = numberIn(word.substr(split + 1), isPrefix);
    if (!second) return *first;
    if (!isPrefix) return bitsBetween(*first, *second);
    return *second >= 32 ? *first : *first | ~0u >> *second;
}

// Goes through one rule from left to right.
class RuleReader {
public:
    explicit RuleReader(const Words& ofRule) : words(ofRule) {}

    std::uint32_t bits() {
        for (at = 0; at < words.size(); ++at) read();
        return found;
    }

private:
    void read() {
        const std::string_view word = words[at];
        // Not of a mark, though numbers too.
        if (precedes("state") || precedes("status") || precedes("flags")) return;
        if (word == "set" && precedes("mark")) {
            changesItself = kindBefore(at - 1) == kindAt(at + 1);
        } else if (word == "mod") {
            modulus = at + 1 < words.size() ? numberIn(words[at + 1], true) : std::nullopt;
        } else if (word == "offset" && at + 1 < words.size()) {
            const auto offset = numberIn(words[at + 1], true).value_or(0);
            found |= bitsBetween(offset, offset + std::max(modulus.value_or(1), 1u) - 1);
        } else if (const auto kept = numberIn(word, false); kept && isKept()) {
            found |= ~*kept;
        } else {
            found |= bitsInWord(word);
        }
    }

    // The number here is what a mark's change keeps of itself.
    bool isKept() const { return changesItself && (precedes("&") || precedes("and")); }
    bool precedes(std::string_view word) const { return at > 0 && words[at - 1] == word; }

    // Whose mark the word "mark" at a place is; the packet's where nothing is said.
    enum class Kind { none, packet, connection };
    Kind kindBefore(std::size_t mark) const {
        return mark > 0 && words[mark - 1] == "ct" ? Kind::connection : Kind::packet;
    }
    Kind kindAt(std::size_t place) const {
        if (place < words.size() && words[place] == "mark") return Kind::packet;
        if (place + 1 >= words.size() || words[place + 1] != "mark") return Kind::none;
        return kindBefore(place + 1);
    }

    const Words& words;
    std::size_t at = 0;
    bool changesItself = false;
    std::optional<std::uint32_t> modulus;
    std::uint32_t found = 0;
};

bool hasMark(const Words& words) { return std::ranges::find(words, "mark") != words.end(); }

bool isOperator(std::string_view word) {
    constexpr std::array<std::string_view, 6> operators{"&", "|", "^", "and", "or", "xor"};
    return std::ranges::find(operators, word) != operators.end();
}

// Whether the value that begins at a word is made of the connection's own mark, too.
bool keepsConnectionMark(const Words& words, std::size_t at) {
    const auto is = [&](std::size_t place, std::string_view word) {
        return place < words.size() && words[place] == word;
    };
    // What iptables' CONNMARK --save-mark with a mask is shown as, though it keeps the rest.
    if (is(at, "mark") && is(at + 1, "and")) return true;
    for (;; ++at) {
        if (is(at, "ct") && is(at + 1, "mark")) return true;
        if (is(at, "meta")) ++at;
        if (++at >= words.size() || !isOperator(words[at])) return false;
    }
}

bool overwritesConnectionMark(const Words& words) {
    for (std::size_t at = 1; at < words.size(); ++at) {
        if (words[at - 1] != "mark") continue;
        // Only for one mark, which is no other's by the bits that it has.
        if (numberIn(words[at], false) && (at + 1 == words.size() || !isOperator(words[at + 1])))
            return false;
        const bool isOfConnection = at > 1 && words[at - 2] == "ct";
        if (isOfConnection && words[at] == "set" && !keepsConnectionMark(words, at + 1))
            return true;
    }
    return false;
}

// Shows each line's words and what it was.
template <class Visit>
void forEachLine(std::string_view rules, Visit visit) {
    while (!rules.empty()) {
        const auto end = rules.find('\n');
        const std::string line = withoutTexts(rules.substr(0, end));
        rules.remove_prefix(end == std::string_view::npos ? rules.size() : end + 1);
        visit(wordsOf(line), line);
    }
}

}  // namespace

std::uint32_t markBitsInRules(std::string_view rules) {
    std::uint32_t bits = 0;
    bool isSetOfMarks = false;  // the elements of one follow on lines of their own
    forEachLine(rules, [&](const Words& words, const std::string& line) {
        if (words.empty()) {
            // A set ends where its bracket does.
            if (line.find('}') != std::string::npos) isSetOfMarks = false;
            return;
        }
        const bool isType = words[0] == "type" || words[0] == "typeof";
        if (isType) isSetOfMarks = hasMark(words);
        if (!isType && (isSetOfMarks || hasMark(words))) bits |= RuleReader(words).bits();
    });
    return bits;
}

namespace {

// The tables with such a rule in a chain that what is sent may pass; `elsewhere` are the hooks of other chains.
template <class Matches>
std::string tablesWith(std::string_view rules, std::initializer_list<std::string_view> elsewhere,
                       Matches matches) {
    std::string tables;
    std::string table;
    bool isElsewhere = false;  // the chain
    forEachLine(rules, [&](const Words& words, const std::string&) {
        if (words.empty()) return;
        if (words[0] == "table" && words.size() > 2)
            table = std::string(words[1]).append(" ").append(words[2]);
        if (words[0] == "chain") isElsewhere = false;
        if (words.size() > 3 && words[2] == "hook")
            isElsewhere = std::ranges::find(elsewhere, words[3]) != elsewhere.end();
        if (isElsewhere || table.empty() || !matches(words)) return;
        tables.append(tables.empty() ? "" : ", ").append(table);
        table.clear();
    });
    return tables;
}

}  // namespace

std::string tablesThatOverwriteMarks(std::string_view rules) {
    return tablesWith(rules, {"forward"}, overwritesConnectionMark);
}

std::string tablesThatDoNotTrack(std::string_view rules) {
    return tablesWith(rules, {"forward", "prerouting"}, [](const Words& words) {
        return std::ranges::find(words, "notrack") != words.end();
    });
}

}  // namespace platform::interception
