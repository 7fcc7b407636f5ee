// The six records that cross to the host application: what they look like, what is read as one, and
// what is refused with which words.
#include <gmock/gmock.h>

#include <algorithm>
#include <limits>

#include "Extension/ipc/ActiveAppsResponse.h"
#include "Extension/ipc/ActivityLogEntryIPC.h"
#include "Extension/ipc/ActivityLogResponseIPC.h"
#include "Extension/ipc/ExtensionMessage.h"
#include "Extension/ipc/ExtensionResponse.h"
#include "Extension/ipc/ExtensionStatus.h"
#include "Platform/Common/Text.h"

namespace vantry {
namespace {

using platform::Date;
using platform::JSONFailure;
using platform::UUID;
using Rules = platform::StringMap<std::string>;
using namespace std::string_literals;

template <class Record>
std::optional<Record> decoded(std::string_view document) {
    auto result = Record::decode(document);
    auto* record = std::get_if<Record>(&result);
    return record ? std::optional(std::move(*record)) : std::nullopt;
}

// The document as text of this file, with ' for the quotes.
std::string json(std::string text) {
    std::replace(text.begin(), text.end(), '\'', '"');
    return text;
}

const auto browserEntry = json(
    "{'id':'E621E1F8-C36C-495A-93FC-0C247A3E6E5F','timestamp':785164320.25,"
    "'bundleId':'com.example.browser','appName':'browser','routingDecision':'direct',"
    "'actualRoute':'direct','sourceIp':'192.168.1.20','destinationIp':'203.0.113.7',"
    "'destinationPort':443,'protocolType':'tcp','isVpnConnected':true}");
const auto shortestEntry = json(
    "{'id':'7B2F9C3E-1D44-4A60-9E0B-52C1F0A9D311','timestamp':0,'bundleId':'com.example.mail',"
    "'appName':'mail','routingDecision':'block','isVpnConnected':false}");

// `browserEntry` with one piece of its text replaced.
std::string entryWith(std::string piece, std::string replacement) {
    auto document = browserEntry;
    piece = json(std::move(piece));
    const auto at = document.find(piece);
    EXPECT_NE(at, std::string::npos) << piece;
    return document.replace(at, piece.size(), json(std::move(replacement)));
}

TEST(Records, AreWrittenInTheirExactForm) {
    const ActivityLogEntryIPC entry{*UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F"),
                                    Date::sinceReferenceDate(785164320.25),
                                    "com.example.browser",
                                    "browser",
                                    "direct",
                                    "direct",
                                    "192.168.1.20",
                                    "203.0.113.7",
                                    443,
                                    "tcp",
                                    true};
    EXPECT_EQ(entry.encode(), browserEntry);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(browserEntry), entry);

    const auto shortest = decoded<ActivityLogEntryIPC>(shortestEntry);
    EXPECT_EQ(shortest->encode(), shortestEntry);
    EXPECT_EQ((ActivityLogResponseIPC{{entry, *shortest}}.encode()),
              json("{'entries':[") + browserEntry + "," + shortestEntry + "]}");
    EXPECT_EQ(ActivityLogResponseIPC().encode(), json("{'entries':[]}"));

    EXPECT_EQ((ExtensionMessage{MessageType::getStatus, {}, {}}.encode()),
              json("{'type':'getStatus'}"));
    EXPECT_EQ((ExtensionMessage{MessageType::reload, Rules{}, "vpn"}.encode()),
              json("{'type':'reload','rules':{},'defaultAction':'vpn'}"));
    EXPECT_EQ((ExtensionMessage{MessageType::reload, Rules{{"a.b", "direct"}}, {}}.encode()),
              json("{'type':'reload','rules':{'a.b':'direct'}}"));

    EXPECT_EQ((ExtensionStatus{true, 12}.encode()), json("{'isActive':true,'ruleCount':12}"));
    EXPECT_EQ((ActiveAppsResponse{{"com.example.browser", "com.example.mail"}}.encode()),
              json("{'bundleIds':['com.example.browser','com.example.mail']}"));
    EXPECT_EQ(ExtensionResponse::success().encode(), json("{'success':{}}"));
    EXPECT_EQ(ExtensionResponse::error("message text").encode(),
              json("{'error':{'_0':'message text'}}"));
}

TEST(ExtensionMessage, IsReadWithEachFieldPresentOrNot) {
    using Message = ExtensionMessage;
    const std::pair<const char*, Message> cases[] = {
        {"{'type':'reload','rules':{}}", {MessageType::reload, Rules{}, {}}},
        {"{'type':'getStatus','rules':null,'defaultAction':null,'extra':5}",
         {MessageType::getStatus, {}, {}}},
        {" {'defaultAction' : '' , 'type' : 'getActiveApps'}\n",
         {MessageType::getActiveApps, {}, ""}},
        {"{'type':'getStatus','type':'clearActivityLog'}", {MessageType::clearActivityLog, {}, {}}},
        {"{'type':'reload','rules':{'a':'vpn','':'','a':'no such word'}}",
         {MessageType::reload, Rules{{"a", "no such word"}, {"", ""}}, {}}},
    };
    for (const auto& [document, message] : cases)
        EXPECT_EQ(decoded<Message>(json(document)), message) << document;
    EXPECT_EQ(
        decoded<Message>("{\"type\":\"reload\",\"defaultAction\":\"a\\u0000b\"}")->defaultAction,
        "a\0b"s);
}

// Documents that are refused, each with what the description of the failure holds.
using Refusals = std::initializer_list<std::pair<std::string, const char*>>;

template <class Record>
void expectRefused(Refusals refusals) {
    for (const auto& [document, reason] : refusals) {
        const auto result = Record::decode(json(document));
        const auto* failure = std::get_if<JSONFailure>(&result);
        ASSERT_TRUE(failure) << document;
        EXPECT_THAT(failure->description, testing::HasSubstr(json(reason))) << document;
    }
}

TEST(Records, AreRefusedWithAReason) {
    expectRefused<ExtensionMessage>({
        {"", "unexpected end of input"},
        {"[{'type':'getStatus'}]", "expected an object, found an array"},
        {"{'Type':'getStatus'}", "type: required, but missing"},
        {"{'type':null}", "type: expected one of"},
        {"{'type':'status'}", "'getStatus', 'reload', 'getActiveApps', 'clearActivityLog'"},
        {"{'type':'GetStatus'}", "found the string 'GetStatus'"},
        {"{'type':'getStatus','rules':{'com.example.browser':1}}",
         "rules['com.example.browser']: expected a string, found the number 1"},
        {"{'type':'reload','rules':[]}", "rules: expected an object of strings, found an array"},
        {"{'type':'reload','defaultAction':true}",
         "defaultAction: expected a string, found a bool"},
        {"{'type':'getStatus'}{}", "line 1, column 21"},
    });
    expectRefused<ActivityLogResponseIPC>(
        {{"{'entries':null}", "entries: "},
         {"{'entries':[" + shortestEntry + ",{}]}", "entries[1].id: required"}});
    expectRefused<ExtensionStatus>(
        {{"{'isActive':1,'ruleCount':1}", "isActive: "},
         {"{'isActive':true,'ruleCount':9223372036854775808}", "ruleCount: "},
         {"{'isActive':true,'ruleCount':1.5}", "ruleCount: "}});
    expectRefused<ActiveAppsResponse>(
        {{"{'bundleIds':['a',1]}", "bundleIds[1]: expected a string, found the number 1"}});
    constexpr auto oneKey = "Invalid number of keys found, expected one.";
    expectRefused<ExtensionResponse>({
        {"[]", "expected an object"},
        {"{'Success':{}}", oneKey},
        {"{'success':{},'error':null}", oneKey},
        {"{'success':true}", "success: expected an object, found a boolean"},
        {"{'error':'x'}", "error: expected an object, found the string 'x'"},
        {"{'error':{}}", "error._0: required, but missing"},
        {"{'error':{'_0':null}}", "error._0: expected a string, found null"},
    });
    expectRefused<ActivityLogEntryIPC>({
        {entryWith("E621E1F8-", "E621E1F8"), "id: expected a UUID"},
        {entryWith("785164320.25", "'2025-11-18T14:12:00Z'"), "timestamp: expected a date"},
        {entryWith("'com.example.browser'", "null"), "bundleId: expected a string, found null"},
        {entryWith("443", "65536"), "destinationPort: expected a whole number from 0 to 65535"},
        {entryWith("443", "-1"), "destinationPort: expected a whole number"},
        {entryWith("443", "443.5"), "found the number 443.5"},
        {entryWith("true", "1"), "isVpnConnected: expected a boolean, found the number 1"},
    });
    // Each field is checked, and asked for if it is not optional.
    auto document = std::get<platform::JSONValue>(platform::parseJSON(browserEntry));
    for (auto& [key, value] : std::get<platform::JSONObject>(document.value)) {
        const auto before = std::exchange(value, platform::JSONArray{});
        platform::JSONWriter writer;
        writer.value(document);
        expectRefused<ActivityLogEntryIPC>({{*writer.finish(), (key + ": expected ").c_str()}});
        value = before;
        if (shortestEntry.find(key) == std::string::npos) continue;
        expectRefused<ActivityLogEntryIPC>(
            {{entryWith("'" + key + "'", "'other'"), (key + ": required, but missing").c_str()}});
    }
}

TEST(Records, FailBrieflyHoweverHostileTheDocument) {
    const std::string large(1'000'000, 'k');
    for (const auto& document :
         {"{\"type\":\"" + large + "\"}", "{\"type\":\"reload\",\"rules\":{\"" + large + "\":1}}",
          "{\"type\":\"reload\",\"rules\":{\"" + std::string(59, 'k') + "\xE2\x82\xAC\":1}}",
          "{\"type\":\"\xFF\xFE\"}"s, "{\"type\":\"getStatus\"}\0"s}) {
        const auto failure = std::get<JSONFailure>(ExtensionMessage::decode(document)).description;
        EXPECT_LT(failure.size(), 400u);
        // It goes back to the host as the message of an error.
        EXPECT_TRUE(ExtensionResponse::error(failure).encode());
    }
}

TEST(Records, AreReadInEveryValidForm) {
    const auto entry = *decoded<ActivityLogEntryIPC>(browserEntry);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(entryWith("E621E1F8", "e621e1f8")), entry);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(entryWith("443", "443,'more':[1]")), entry);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(entryWith("443", "65535"))->destinationPort, 65535);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(entryWith("443", "null"))->destinationPort,
              std::nullopt);
    for (const double seconds : {0.1, 785164320.0 + 1.0 / 3, -1e-300, 1e300}) {
        auto dated = entry;
        dated.timestamp = Date::sinceReferenceDate(seconds);
        EXPECT_EQ(decoded<ActivityLogEntryIPC>(*dated.encode()), dated) << seconds;
    }
    for (const auto count : {std::int64_t{-3}, std::numeric_limits<std::int64_t>::min()})
        EXPECT_EQ(decoded<ExtensionStatus>(*ExtensionStatus{false, count}.encode())->ruleCount,
                  count);
    for (const auto* document : {"{'success':{},'other':1}", "{'success':{'note':'x'}}"})
        EXPECT_EQ(decoded<ExtensionResponse>(json(document)), ExtensionResponse::success());
    EXPECT_EQ(decoded<ExtensionResponse>(json("{'error':{'_0':'x','_1':2},'a':null}")),
              ExtensionResponse::error("x"));
    EXPECT_EQ(decoded<ActiveAppsResponse>(json("{'bundleIds':['a']}"))->bundleIds,
              std::vector<std::string>{"a"});
}

}  // namespace
}  // namespace vantry
