// The six records that cross to the host application: what they look like, what is read as one, and
// what is refused with which words.
#include <gmock/gmock.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>

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
using testing::AllOf;
using testing::HasSubstr;
using Rules = platform::StringMap<std::string>;
using namespace std::string_literals;

template <class Record>
std::optional<Record> decoded(std::string_view document) {
    auto result = Record::decode(document);
    auto* record = std::get_if<Record>(&result);
    return record ? std::optional(std::move(*record)) : std::nullopt;
}

template <class Record>
std::string failureOf(std::string_view document) {
    const auto result = Record::decode(document);
    const auto* failure = std::get_if<JSONFailure>(&result);
    return failure ? failure->description : "";
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
    ActivityLogEntryIPC entry;
    entry.id = *UUID::fromString("E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    entry.timestamp = Date::sinceReferenceDate(785164320.25);
    entry.bundleId = "com.example.browser";
    entry.appName = "browser";
    entry.routingDecision = "direct";
    entry.actualRoute = "direct";
    entry.sourceIp = "192.168.1.20";
    entry.destinationIp = "203.0.113.7";
    entry.destinationPort = 443;
    entry.protocolType = "tcp";
    entry.isVpnConnected = true;
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

TEST(Records, WithTextThatIsNotUTF8HaveNoDocument) {
    ActivityLogEntryIPC entry;
    EXPECT_TRUE(entry.encode());
    entry.sourceIp = "\xFF";
    EXPECT_FALSE(entry.encode());
    EXPECT_FALSE((ActivityLogResponseIPC{{entry}}.encode()));
    entry.sourceIp.reset();
    entry.timestamp = Date::sinceReferenceDate(std::nan(""));
    EXPECT_FALSE(entry.encode());
    EXPECT_FALSE((ExtensionMessage{MessageType::reload, Rules{{"\xC3", "vpn"}}, {}}.encode()));
    EXPECT_FALSE(ExtensionResponse::error("cut \xE2\x82").encode());
    EXPECT_FALSE((ActiveAppsResponse{{"\xED\xA0\x80"}}.encode()));
}

TEST(ExtensionMessage, IsReadWithEachFieldPresentOrNot) {
    using Message = ExtensionMessage;
    const struct {
        const char* document;
        Message message;
    } cases[] = {
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

struct Refusal {
    const char* document;
    const char* reason;
};

template <class Record>
void expectRefused(std::initializer_list<Refusal> refusals) {
    for (const auto& [document, reason] : refusals) {
        EXPECT_EQ(decoded<Record>(json(document)), std::nullopt) << document;
        EXPECT_THAT(failureOf<Record>(json(document)), HasSubstr(json(reason))) << document;
    }
}

TEST(Records, AreRefusedWithAReason) {
    expectRefused<ExtensionMessage>({
        {"", "unexpected end of input"},
        {"[{'type':'getStatus'}]", "expected an object, found an array"},
        {"5", "expected an object, found the number 5"},
        {"{'Type':'getStatus'}", "type: required, but missing"},
        {"{'type':null}", "type: expected one of"},
        {"{'type':'status'}", "'getStatus', 'reload', 'getActiveApps', 'clearActivityLog'"},
        {"{'type':'GetStatus'}", "found the string 'GetStatus'"},
        {"{'type':'getStatus','rules':{'com.example.browser':1}}",
         "rules['com.example.browser']: expected a string, found the number 1"},
        {"{'type':'reload','rules':{'a':null}}", "rules['a']: expected a string, found null"},
        {"{'type':'reload','rules':[]}", "rules: expected an object of strings, found an array"},
        {"{'type':'reload','defaultAction':true}",
         "defaultAction: expected a string, found a bool"},
        {"{'type':'getStatus'}{}", "line 1, column 21"},
    });
    expectRefused<ActivityLogResponseIPC>({{"{}", "entries: "},
                                           {"{'entries':null}", "entries: "},
                                           {"{'entries':{}}", "entries: "},
                                           {"{'entries':[{}]}", "entries[0].id: "},
                                           {"{'entries':[[]]}", "entries[0]: "}});
    expectRefused<ExtensionStatus>({{"{'isActive':true}", "ruleCount: "},
                                    {"{'ruleCount':1}", "isActive: "},
                                    {"{'isActive':1,'ruleCount':1}", "isActive: "}});
    expectRefused<ActiveAppsResponse>(
        {{"{'bundleIds':null}", "bundleIds: "},
         {"{'bundleIds':{'0':'a'}}", "bundleIds: "},
         {"{'bundleIds':['a',1]}", "bundleIds[1]: expected a string, found the number 1"}});
    constexpr auto oneKey = "Invalid number of keys found, expected one.";
    expectRefused<ExtensionResponse>({
        {"{}", oneKey},
        {"{'success':{},'error':{'_0':'x'}}", oneKey},
        {"{'Success':{}}", oneKey},
        {"{'success':{},'error':null}", oneKey},
        {"{'success':true}", "success: expected an object, found a boolean"},
        {"{'error':'x'}", "error: expected an object, found the string 'x'"},
        {"{'error':{}}", "error._0: required, but missing"},
        {"{'error':{'_0':null}}", "error._0: expected a string, found null"},
    });
}

TEST(ExtensionMessage, FailsBrieflyHoweverHostileTheDocument) {
    const std::string large(1'000'000, 'k');
    std::string deep = "{\"type\":\"getStatus\",\"extra\":";
    for (int i = 0; i < 100'000; ++i) deep += "{\"a\":[";
    for (const auto& document :
         {deep, "{\"type\":\"" + large + "\"}",
          "{\"type\":\"reload\",\"rules\":{\"" + large + "\":1}}",
          "{\"type\":\"reload\",\"rules\":{\"" + std::string(59, 'k') + "\xE2\x82\xAC\":1}}",
          "{\"type\":\"\xFF\xFE\"}"s, "{\"type\":\"getStatus\"}\0"s}) {
        const auto failure = failureOf<ExtensionMessage>(document);
        EXPECT_FALSE(failure.empty());
        EXPECT_LT(failure.size(), 400u);
        // It goes back to the host as the message of an error.
        EXPECT_TRUE(ExtensionResponse::error(failure).encode());
    }
}

TEST(ActivityLogEntryIPC, IsReadInEveryValidForm) {
    const auto entry = *decoded<ActivityLogEntryIPC>(browserEntry);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(entryWith("E621E1F8", "e621e1f8")), entry);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(entryWith("443", "443,'more':[1]")), entry);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(entryWith("443", "65535"))->destinationPort, 65535);
    EXPECT_EQ(decoded<ActivityLogEntryIPC>(entryWith("443", "null"))->destinationPort,
              std::nullopt);
    EXPECT_TRUE(std::signbit(decoded<ActivityLogEntryIPC>(entryWith("785164320.25", "-0"))
                                 ->timestamp.secondsSinceReferenceDate()));
}

TEST(ActivityLogEntryIPC, IsRefusedForAnyFieldThatDoesNotFit) {
    const struct {
        const char* piece;
        const char* replacement;
        const char* reason;
    } cases[] = {
        {"'id'", "'ID'", "id: required, but missing"},
        {"E621E1F8-", "E621E1F8", "id: expected a UUID"},
        {"785164320.25", "'2025-11-18T14:12:00Z'", "timestamp: expected a date"},
        {"785164320.25", "true", "timestamp: expected a date"},
        {"'com.example.browser'", "null", "bundleId: expected a string, found null"},
        {"'routingDecision'", "'decision'", "routingDecision: required"},
        {"'actualRoute':'direct'", "'actualRoute':{}", "actualRoute: "},
        {"'192.168.1.20'", "19", "sourceIp: "},
        {"'203.0.113.7'", "['203.0.113.7']", "destinationIp: "},
        {"443", "65536", "destinationPort: expected a whole number from 0 to 65535, found the"},
        {"443", "443.5", "found the number 443.5"},
        {"443", "443.0", "destinationPort: expected a whole number"},
        {"443", "'443'", "found the string '443'"},
        {"443", "true", "destinationPort: expected a whole number from 0 to 65535, found a bool"},
        {"'tcp'", "false", "protocolType: "},
        {"true", "1", "isVpnConnected: expected a boolean, found the number 1"},
    };
    for (const auto& [piece, replacement, reason] : cases) {
        const auto document = entryWith(piece, replacement);
        EXPECT_EQ(decoded<ActivityLogEntryIPC>(document), std::nullopt) << document;
        EXPECT_THAT(failureOf<ActivityLogEntryIPC>(document), HasSubstr(json(reason)));
        EXPECT_THAT(failureOf<ActivityLogResponseIPC>(json("{'entries':[") + shortestEntry + "," +
                                                      document + "]}"),
                    AllOf(HasSubstr("entries[1]."), HasSubstr(json(reason))));
    }
}

TEST(ExtensionStatus, TakesWholeNumbersOf64Bits) {
    const struct {
        const char* count;
        std::optional<std::int64_t> value;
    } cases[] = {
        {"-3", -3},
        {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
        {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
        {"1e3", {}},
        {"12.0", {}},
        {"-0.0", {}},
        {"9223372036854775808", {}},
        {"1.5", {}},
        {"'1'", {}},
        {"true", {}},
        {"null", {}},
    };
    for (const auto& [count, value] : cases) {
        const auto status =
            decoded<ExtensionStatus>(json("{'isActive':false,'ruleCount':"s + count + "}"));
        EXPECT_EQ(status ? std::optional(status->ruleCount) : std::nullopt, value) << count;
    }
}

TEST(ExtensionResponse, IsReadWithMoreThanItNeeds) {
    for (const auto* document : {"{'success':{},'other':1}", "{'success':{'note':'x'}}"})
        EXPECT_EQ(decoded<ExtensionResponse>(json(document)), ExtensionResponse::success());
    EXPECT_EQ(decoded<ExtensionResponse>(json("{'error':{'_0':'x','_1':2},'a':null}")),
              ExtensionResponse::error("x"));
}

class RandomRecords {
public:
    bool coin() { return engine() % 2 == 0; }
    std::int64_t integer() { return static_cast<std::int64_t>(engine()); }
    std::string text() {
        static const std::string pieces[] = {
            "com.",     "example",          "\"", "\\",  "\n", "\0"s, "\x1F", "/",
            "\xC3\xA9", "\xF0\x9F\x98\x80", " ",  "\x7F"};
        std::string result;
        for (auto count = engine() % 6; count > 0; --count)
            result += pieces[engine() % std::size(pieces)];
        return result;
    }
    Date date() {
        for (;;) {
            const auto seconds = coin() ? 785164320.0 + static_cast<double>(engine()) / 0x1p64
                                        : std::bit_cast<double>(engine());
            if (std::isfinite(seconds)) return Date::sinceReferenceDate(seconds);
        }
    }
    template <class Make>
    auto maybe(Make make) {
        return coin() ? std::optional(make()) : std::nullopt;
    }
    ActivityLogEntryIPC entry() {
        const auto anyText = [this] { return text(); };
        UUID::Bytes bytes;
        for (auto& byte : bytes) byte = static_cast<std::uint8_t>(engine());
        return {UUID::randomFrom(bytes),
                date(),
                text(),
                text(),
                text(),
                maybe(anyText),
                maybe(anyText),
                maybe(anyText),
                maybe([this] { return static_cast<std::uint16_t>(engine()); }),
                maybe(anyText),
                coin()};
    }
    Rules rules() {
        Rules table;
        for (auto count = engine() % 4; count > 0; --count) table[text()] = text();
        return table;
    }
    ExtensionMessage message() {
        return {static_cast<MessageType>(engine() % 4), maybe([this] { return rules(); }),
                maybe([this] { return text(); })};
    }
    template <class Make>
    auto several(Make make) {
        std::vector<decltype(make())> values;
        for (auto count = engine() % 4; count > 0; --count) values.push_back(make());
        return values;
    }

private:
    std::mt19937_64 engine{20261118};
};

template <class Record>
void expectRoundTrip(const Record& record) {
    const auto document = record.encode();
    ASSERT_TRUE(document);
    const auto back = decoded<Record>(*document);
    ASSERT_TRUE(back == record) << *document;
}

TEST(Records, ReadBackAsTheyWereWritten) {
    RandomRecords random;
    for (int i = 0; i < 2'000; ++i) {
        const auto text = [&] { return random.text(); };
        expectRoundTrip(random.entry());
        expectRoundTrip(ActivityLogResponseIPC{random.several([&] { return random.entry(); })});
        expectRoundTrip(random.message());
        expectRoundTrip(ExtensionStatus{random.coin(), random.integer()});
        expectRoundTrip(ActiveAppsResponse{random.several(text)});
        expectRoundTrip(random.coin() ? ExtensionResponse::success()
                                      : ExtensionResponse::error(random.text()));
    }
}

}  // namespace
}  // namespace vantry
