// Rules of others whose marks are known, in every form in which nft and the translation of iptables rules
// print them: exactly the bits that were put in are found. Text of any other kind must do no harm.

#include <cstdint>
#include <cstdio>
#include <string>

#include "Fuzz/Input.h"
#include "Platform/Linux/Rules/MarksInRules.h"

namespace {

using platform::interception::markBitsInRules;

std::string hexadecimal(std::uint32_t number) {
    char text[16];
    const int length = std::snprintf(text, sizeof text, "0x%08x", number);
    return {text, static_cast<std::size_t>(length)};
}

// A rule or an element as nft or the translation of an iptables rule prints it, and what it uses.
struct MarkText {
    std::string text;
    std::uint32_t bits;
};

MarkText markText(unsigned form, std::uint32_t value, std::uint32_t mask) {
    const std::string v = hexadecimal(value);
    const std::string m = hexadecimal(mask);
    switch (form) {
        case 0:
            return {"\tmeta mark & " + m + " == " + v + " accept", value | mask};
        case 1:
            return {"\tct mark set meta mark & " + m, mask};
        case 2:
            return {"\tct mark set ct mark & " + m + " | " + v, ~mask | value};
        case 3:
            return {"\tcounter packets 0 bytes 0 meta mark set mark and " + m + " xor " + v,
                    ~mask | value};
        case 4:
            return {"\tmark and " + m + " == " + v + " ct mark set mark and " + m, mask | value};
        case 5:
            return {"\tmeta mark set ct mark and " + m + " comment \"mark 0xffffffff\"", mask};
        case 6:
            return {"\tset s {\n\t\ttype ipv4_addr . mark\n\t\telements = { 10.0.0.1 . " + v +
                        ",\n\t\t\t     10.0.0.2 . " + m + " }\n\t}",
                    value | mask};
        case 7:
            return {"\tset p {\n\t\ttype inet_service\n\t\telements = { " + v + " }\n\t}\n" +
                        "\ttcp dport " + v + " accept",
                    0};
        default:
            return {"\tmeta mark set tcp dport map { 80 : " + v + ", 443 : " + m + " }",
                    value | mask};
    }
}

std::uint32_t bitsOf(fuzz::Input& input) { return 1u << input.below(32); }

// Of few bits, or of all but few.
std::uint32_t maskOf(fuzz::Input& input) {
    return input.oneIn(2) ? bitsOf(input) : ~(0xffu << input.below(25));
}

// Pieces in no order.
std::string anyText(fuzz::Input& input) {
    static constexpr std::string_view pieces[] = {"mark",
                                                  "ct",
                                                  "meta",
                                                  "set",
                                                  "&",
                                                  "and",
                                                  "|",
                                                  "0x",
                                                  "0xffffffff",
                                                  "-",
                                                  "/",
                                                  "33",
                                                  "{",
                                                  "}",
                                                  "\"",
                                                  "\n",
                                                  " ",
                                                  "type",
                                                  "elements =",
                                                  "mod",
                                                  "offset",
                                                  "4294967295",
                                                  "0x00000001-0x00000003",
                                                  ","};
    std::string text;
    while (!input.isEmpty()) {
        text += input.oneIn(6) ? input.take(3) : input.pick(pieces);
        text += input.oneIn(3) ? "" : " ";
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input({data, size});
    if (input.oneIn(4)) {
        static_cast<void>(markBitsInRules(anyText(input)));
        return 0;
    }
    std::string rules = "table inet a {\n";
    std::uint32_t used = 0;
    while (!input.isEmpty()) {
        const auto form = static_cast<unsigned>(input.below(9));
        const auto value = bitsOf(input), mask = maskOf(input);
        const auto [text, bits] = markText(form, value, mask);
        rules += text + "\n";
        used |= bits;
    }
    rules += "}\n";
    fuzz::require(markBitsInRules(rules) == used, "other bits than those put in", rules);
    return 0;
}
