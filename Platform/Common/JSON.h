// JSON (RFC 8259), both directions, in one place. Reading is strict: one value and nothing behind
// it, UTF-8 only, no comments, nesting limited so that the stack is safe; of duplicate keys the
// last wins. A boolean is never a number and a number never a boolean. Pure functions and values;
// any thread.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "Platform/Common/StringHash.h"

namespace platform {

class JSONValue;
using JSONArray = std::vector<JSONValue>;
// The members of an object, each key once, in the order in which the keys came. Finding one costs
// the same in a small object and in a rules file of a hundred thousand.
class JSONObject {
public:
    using Member = std::pair<std::string, JSONValue>;
    using Members = std::vector<Member>;

    JSONObject() = default;
    JSONObject(std::initializer_list<Member> list);

    Members::iterator begin() { return members.begin(); }
    Members::iterator end() { return members.end(); }
    Members::const_iterator begin() const { return members.begin(); }
    Members::const_iterator end() const { return members.end(); }
    std::size_t size() const;
    bool empty() const { return size() == 0; }

    // The member of that key, or the end. Its key is not to be changed.
    Members::iterator find(std::string_view key);
    Members::const_iterator find(std::string_view key) const;
    // The value under `key`: the one that is there, or a new null at the end.
    JSONValue& operator[](std::string key);

    // The order of the members does not count.
    friend bool operator==(const JSONObject& left, const JSONObject& right);

private:
    // A place of the index: the position behind the member's, or 0, and a part of its key's hash.
    struct Slot {
        std::uint32_t next = 0;
        std::uint32_t hash = 0;
    };

    std::size_t positionOf(std::string_view key, std::uint32_t hash) const;
    void index(std::uint32_t hash);
    void growIndex();
    void take(Slot entry);

    Members members;
    std::vector<Slot> slots;  // empty while a search from the front is as quick
};

// A number beyond every type, as it was written: "1e999". No field takes one, and one that is passed over
// is written again as it was.
struct JSONLargeNumber {
    std::string text;

    friend bool operator==(const JSONLargeNumber&, const JSONLargeNumber&) = default;
};

class JSONValue {
public:
    // A whole number that was written without fraction and exponent and fits is an integer, signed
    // if it fits that; every other number is a double, or its text where it is too large for one.
    using Variant = std::variant<std::nullptr_t, bool, std::int64_t, std::uint64_t, double,
                                 JSONLargeNumber, std::string, JSONArray, JSONObject>;

    JSONValue() : value(nullptr) {}
    template <class T>
    requires(std::constructible_from<Variant, T> &&
             !std::same_as<std::remove_cvref_t<T>, JSONValue>) JSONValue(T&& v)
        : value(std::forward<T>(v)) {}

    bool isNull() const { return std::holds_alternative<std::nullptr_t>(value); }
    // The value under this type, or null if it is of another.
    template <class T>
    const T* as() const {
        return std::get_if<T>(&value);
    }
    // "null", "a boolean", "a number", "a string", "an array" or "an object", for failure texts.
    std::string_view typeName() const;

    friend bool operator==(const JSONValue&, const JSONValue&) = default;

    Variant value;
};

// Why a text is not the document that was asked for, in words for a person.
struct JSONFailure {
    std::string description;
};

// How deep arrays and objects may nest in a document that is read.
inline constexpr std::size_t maximumJSONDepth = 512;

// Takes the texts of one member of the document, an object, as they are read: they take no room in the
// value. The object keeps what else it holds, and the texts that came after that under the same keys.
struct JSONMemberTexts {
    std::string_view member;
    std::function<void()> begin;  // an object of that name; the last one counts
    std::function<void(std::string_view key, std::string_view text)> take;
};

// Reads one document. A failure says in a few words what is wrong and at which line and column.
std::variant<JSONValue, JSONFailure> parseJSON(std::string_view text,
                                               const JSONMemberTexts* texts = nullptr);

// Reads a document that is an array and gives its elements to `take` one after the other, so that a long
// one costs the memory of its longest element. Those before a failure have been given. A number beyond
// every type is a failure here.
std::optional<JSONFailure> readJSONArray(std::string_view text,
                                         const std::function<void(JSONValue)>& take);

// Reads with the options of a plain `JSONObjectWithData:options:error:` call: the top level has to
// be an array or an object. The error is not kept.
struct NSJSONSerialization {
    static std::optional<JSONValue> JSONObjectWithData(std::string_view data,
                                                       const JSONMemberTexts* texts = nullptr);
};

// The entries of an object whose every value is a string; nothing for any other value.
std::optional<StringMap<std::string>> stringTable(const JSONValue& value);
// Every element of an array of strings; nothing for any other value.
std::optional<std::vector<std::string>> stringArray(const JSONValue& value);

// Writes a document piece by piece into one string: in one line, or with each member and element on a
// line of its own, indented by that many blanks for each level. The caller keeps the order right
// (key before value, every begin with its end); commas are put by the writer. A text that is not
// valid UTF-8, or a number that JSON cannot express (NaN, infinity), spoils the document: `finish`
// then gives nothing.
class JSONWriter {
public:
    explicit JSONWriter(unsigned blanksEachLevel = 0) : indentation(blanksEachLevel) {}

    void beginObject() { open('{'); }
    void endObject() { close('}'); }
    void beginArray() { open('['); }
    void endArray() { close(']'); }
    void key(std::string_view name);
    void string(std::string_view text);
    void boolean(bool value);
    void integer(std::int64_t value);
    void unsignedInteger(std::uint64_t value);
    // Shortest form that reads back as the same double.
    void number(double value);
    void number(const JSONLargeNumber& value);
    void null();
    void value(const JSONValue& value);

    void reserve(std::size_t bytes) { out.reserve(bytes); }
    // The document, and the writer is empty again; null if a piece could not be expressed.
    std::optional<std::string> finish();

private:
    void open(char bracket);
    void close(char bracket);
    void separate();
    void startLine();
    void quoted(std::string_view text);

    const unsigned indentation;
    std::string out;
    std::size_t level = 0;
    bool isAfterKey = false;
    bool needsComma = false;
    bool isSpoiled = false;
};

}  // namespace platform
