// The identifier in a property list against a second reader: expat's parser below a few lines of our own.
// Only well-formed lists are compared; whatever else there is must not do harm.

#include <expat.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Fuzz/Input.h"
#include "Platform/Linux/Attribution/BundleIdentifiers.h"

namespace {

// Follows a list's elements: plist, dict, and its keys and values in turns.
struct Reader {
    std::vector<std::string> open;
    std::optional<std::string> key;
    std::string text;
    std::optional<std::string> identifier;
    bool isList = true;
    int dictionaries = 0;

    void begins(const std::string& name) {
        const auto depth = open.size();
        if (depth == 0) isList = isList && name == "plist";
        if (depth == 1) isList = isList && name == "dict" && ++dictionaries == 1;
        // A key or a text holds nothing but text.
        if (depth > 2 && (open[2] == "key" || open[2] == "string")) isList = false;
        if (depth == 2) text.clear();
        open.push_back(name);
    }
    void ends() {
        const auto name = open.back();
        open.pop_back();
        if (open.size() != 2) return;
        if (name == "key") {
            isList = isList && !key;
            key = text;
            return;
        }
        isList = isList && key;
        if (key == "CFBundleIdentifier") {
            identifier.reset();
            if (name == "string") identifier = text;
        }
        key.reset();
    }
};

struct ParserDeleter {
    void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

// Nothing where the text is no well-formed list; otherwise the identifier, if it has one.
std::optional<std::optional<std::string>> secondReading(const std::string& document) {
    const std::unique_ptr<XML_ParserStruct, ParserDeleter> parser(XML_ParserCreate("UTF-8"));
    Reader reader;
    XML_SetUserData(parser.get(), &reader);
    XML_SetElementHandler(
        parser.get(),
        [](void* to, const XML_Char* name, const XML_Char**) {
            static_cast<Reader*>(to)->begins(name);
        },
        [](void* to, const XML_Char*) { static_cast<Reader*>(to)->ends(); });
    XML_SetCharacterDataHandler(parser.get(), [](void* to, const XML_Char* text, int length) {
        static_cast<Reader*>(to)->text.append(text, static_cast<std::size_t>(length));
    });
    // What a name stands for that only another document could declare, is not known.
    XML_SetSkippedEntityHandler(parser.get(), [](void* to, const XML_Char*, int) {
        static_cast<Reader*>(to)->isList = false;
    });
    const bool isWellFormed =
        XML_Parse(parser.get(), document.data(), static_cast<int>(document.size()), XML_TRUE) != 0;
    if (!isWellFormed || !reader.isList || reader.key) return std::nullopt;
    return reader.identifier;
}

// A second opinion on what may be an identifier, over characters instead of bytes.
bool isUsable(const std::string& identifier) {
    if (identifier.empty() || identifier.size() > 255) return false;
    for (std::size_t at = 0; at < identifier.size(); ++at) {
        const unsigned char byte = static_cast<unsigned char>(identifier[at]);
        const unsigned char next = static_cast<unsigned char>(identifier.c_str()[at + 1]);
        if (byte < 0x20 || byte == 0x7f || (byte == 0xc2 && next <= 0x9f)) return false;
    }
    return true;
}

std::string text(fuzz::Input& input) {
    static constexpr std::array<std::string_view, 16> pieces{
        "com.example.a", " ",         "\n",     "\r\n",        "<![CDATA[x]]>", "<![CDATA[ ]]>",
        "<!-- c -->",    "&amp;",     "&#x2e;", "&#xc3;",      "&#x85;",        "\xc3\xa9",
        "\xc2\x9b",      "<?p i d?>", "\t",     "<b>inner</b>"};
    std::string text;
    for (auto count = input.below(5); count > 0; --count) text += input.pick(pieces);
    return text;
}

std::string key(fuzz::Input& input) {
    static constexpr std::array<std::string_view, 6> keys{"CFBundleIdentifier",
                                                          "CFBundleIdentifier",
                                                          "<![CDATA[CFBundle]]>Identifier",
                                                          "CFBundleName",
                                                          " <![CDATA[CFBundleIdentifier]]>",
                                                          "CFBundle<!-- c -->Identifier"};
    return "<key>" + std::string(input.pick(keys)) + "</key>";
}

std::string value(fuzz::Input& input, int depth) {
    switch (input.below(8)) {
        case 0:
            return "<true/>";
        case 1:
            return "<integer>" + text(input) + "</integer>";
        case 2:
            if (depth < 3) return "<dict>" + key(input) + value(input, depth + 1) + "</dict>";
            return "<dict/>";
        default:
            return "<string>" + text(input) + "</string>";
    }
}

std::string list(fuzz::Input& input) {
    static constexpr std::array<std::string_view, 4> heads{
        "", "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", "<!DOCTYPE plist PUBLIC \"x\" \"y\">",
        "<!-- a list -->"};
    auto document = std::string(input.pick(heads)) + "<plist version=\"1.0\"><dict>";
    for (auto count = input.below(6); count > 0; --count) {
        document += key(input) + (input.oneIn(4) ? "\n " : "") + value(input, 0);
        if (input.oneIn(8)) document += text(input);
    }
    document += "</dict></plist>\n";
    // A few bytes of harm.
    for (auto count = input.oneIn(4) ? input.below(4) : 0; count > 0; --count)
        document.insert(input.below(document.size() < 256 ? document.size() : 256), input.take(3));
    return document;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::Input input({data, size});
    const auto document = list(input);
    const auto read = platform::identifierInPropertyList(document);
    fuzz::require(!read || isUsable(*read), "not usable as an identifier", document);
    const auto expected = secondReading(document);
    if (!expected) return 0;
    const auto usable = *expected && isUsable(**expected) ? *expected : std::nullopt;
    fuzz::require(read == usable, "another identifier than a second reader's", document);
    return 0;
}
