// The host application's requests for a recording, which it fetches piece by piece:
//
//   {"question": "record", "do": "start", "verbatim": false}  -> {"number"}, or an error if one is under way
//   {"question": "record", "do": "fetch", "number": 1}        -> {"lines", "lost", "isOver"}
//   {"question": "record", "do": "stop", "number": 1}         -> {"wasOver"}; what is left is fetched after it
//
// One thread.
#pragma once

#include <cstdint>
#include <optional>

#include "Platform/Common/JSON.h"
#include "Platform/Linux/Recording/Pseudonyms.h"

namespace platform::recording {

class RecordQuestions {
public:
    JSONObject answer(const JSONObject& question);

private:
    JSONObject start(bool isVerbatim);
    JSONObject fetch(std::int64_t number);

    std::optional<Pseudonyms> pseudonyms;
};

}  // namespace platform::recording
