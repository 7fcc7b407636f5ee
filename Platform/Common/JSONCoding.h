// Turns records into JSON documents and back, field by field. A record names its fields once, in a
// static `codeFields(record, coder)` that calls `coder(key, field)` for each in order; both
// directions go through it. A field of type std::optional is left out when it has no value, and has
// none when its key is missing or null; every other field is required. Keys that no field has are
// passed over. Decoding stops at the first field that does not fit. Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Platform/Common/Date.h"
#include "Platform/Common/JSON.h"
#include "Platform/Common/StringHash.h"
#include "Platform/Common/UUID.h"

namespace platform {

// Where a document departs from its record, and how.
struct JSONMismatch {
    std::string path;  // "entries[3].id"; empty for the document as a whole
    std::string reason;

    // The same mismatch, told from the object or array that holds the value.
    JSONMismatch insideMember(std::string_view key) &&;
    JSONMismatch insideElement(std::size_t index) &&;
    JSONFailure failure() &&;
};

// What keeps a value from being what its field wants; null if it fits.
using JSONDecoding = std::optional<JSONMismatch>;

// The words for a value of another kind: "expected a string, found the number 5".
JSONMismatch unexpectedValue(std::string_view expected, const JSONValue& found);

// The kinds of field. A date is a number of seconds since 2001. A whole number is one that was written
// without fraction and exponent: neither 443.0 nor 4.43e2. Decoding takes texts out of the value that it
// reads.
JSONDecoding decodeValue(JSONValue& value, bool& field);
JSONDecoding decodeValue(JSONValue& value, std::int64_t& field);
JSONDecoding decodeValue(JSONValue& value, std::uint16_t& field);
JSONDecoding decodeValue(JSONValue& value, std::string& field);
JSONDecoding decodeValue(JSONValue& value, Date& field);
JSONDecoding decodeValue(JSONValue& value, UUID& field);
JSONDecoding decodeValue(JSONValue& value, StringMap<std::string>& field);
// One of `words`, by its index.
JSONDecoding decodeWord(JSONValue& value, std::span<const std::string_view> words,
                        std::size_t& index);

inline void encodeValue(JSONWriter& writer, bool field) { writer.boolean(field); }
inline void encodeValue(JSONWriter& writer, std::int64_t field) { writer.integer(field); }
inline void encodeValue(JSONWriter& writer, std::uint16_t field) { writer.integer(field); }
inline void encodeValue(JSONWriter& writer, const std::string& field) { writer.string(field); }
void encodeValue(JSONWriter& writer, Date field);
void encodeValue(JSONWriter& writer, const UUID& field);
void encodeValue(JSONWriter& writer, const StringMap<std::string>& field);

// The coder that writes.
class JSONFieldWriter {
public:
    explicit JSONFieldWriter(JSONWriter& documentWriter) : writer(documentWriter) {}

    template <class Field>
    void operator()(std::string_view key, const Field& field) {
        writer.key(key);
        encodeValue(writer, field);
    }
    template <class Field>
    void operator()(std::string_view key, const std::optional<Field>& field) {
        if (field) (*this)(key, *field);
    }

private:
    JSONWriter& writer;
};

// The coder that reads. After the first mismatch it leaves the remaining fields alone.
class JSONFieldReader {
public:
    explicit JSONFieldReader(JSONObject& documentObject) : object(documentObject) {}

    template <class Field>
    void operator()(std::string_view key, Field& field) {
        if (result) return;
        if (auto* value = find(key))
            decode(key, *value, field);
        else
            result = JSONMismatch{std::string(key), "required, but missing"};
    }
    template <class Field>
    void operator()(std::string_view key, std::optional<Field>& field) {
        if (result) return;
        auto* value = find(key);
        if (value && !value->isNull()) decode(key, *value, field.emplace());
    }

    JSONDecoding takeResult() { return std::move(result); }

private:
    JSONValue* find(std::string_view key) {
        const auto found = object.find(key);
        return found == object.end() ? nullptr : &found->second;
    }
    template <class Field>
    void decode(std::string_view key, JSONValue& value, Field& field) {
        result = decodeValue(value, field);
        if (result) result = std::move(*result).insideMember(key);
    }

    JSONObject& object;
    JSONDecoding result;
};

template <class T>
concept JSONRecord = requires(T& record, JSONFieldReader& reader) {
    T::codeFields(record, reader);
};

// An enumeration whose `jsonWords` gives the word that stands for each enumerator, from 0 on.
template <class T>
concept JSONWord = requires(T value) {
    jsonWords(value);
};

template <JSONRecord Record>
JSONDecoding decodeValue(JSONValue& value, Record& record) {
    auto* object = std::get_if<JSONObject>(&value.value);
    if (!object) return unexpectedValue("an object", value);
    JSONFieldReader reader(*object);
    Record::codeFields(record, reader);
    return reader.takeResult();
}

template <JSONRecord Record>
void encodeValue(JSONWriter& writer, const Record& record) {
    writer.beginObject();
    JSONFieldWriter coder(writer);
    Record::codeFields(record, coder);
    writer.endObject();
}

template <JSONWord Word>
JSONDecoding decodeValue(JSONValue& value, Word& field) {
    std::size_t index = 0;
    auto result = decodeWord(value, jsonWords(field), index);
    if (!result) field = static_cast<Word>(index);
    return result;
}

template <JSONWord Word>
void encodeValue(JSONWriter& writer, Word field) {
    writer.string(jsonWords(field)[static_cast<std::size_t>(field)]);
}

template <class Element>
JSONDecoding decodeValue(JSONValue& value, std::vector<Element>& elements) {
    auto* array = std::get_if<JSONArray>(&value.value);
    if (!array) return unexpectedValue("an array", value);
    elements.reserve(array->size());
    for (std::size_t i = 0; i < array->size(); ++i) {
        auto result = decodeValue((*array)[i], elements.emplace_back());
        if (result) return std::move(*result).insideElement(i);
    }
    return std::nullopt;
}

template <class Element>
void encodeValue(JSONWriter& writer, const std::vector<Element>& elements) {
    writer.beginArray();
    for (const auto& element : elements) encodeValue(writer, element);
    writer.endArray();
}

// A whole document. Decoding gives the record or, for a person, why the text is not one.
template <class Record>
std::variant<Record, JSONFailure> decodeDocument(std::string_view document) {
    auto parsed = parseJSON(document);
    if (auto* failure = std::get_if<JSONFailure>(&parsed)) return std::move(*failure);
    Record record{};
    if (auto mismatch = decodeValue(std::get<JSONValue>(parsed), record))
        return std::move(*mismatch).failure();
    return record;
}

// Null if a text of the record is not valid UTF-8 or a date of it not finite. A guess of the
// document's size in bytes saves copies of a large one.
template <class Record>
std::optional<std::string> encodeDocument(const Record& record, std::size_t expectedSize = 0) {
    JSONWriter writer;
    writer.reserve(expectedSize);
    encodeValue(writer, record);
    return writer.finish();
}

}  // namespace platform
