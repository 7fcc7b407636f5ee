// The small values: instants, identifiers, and the printed forms that both
// platforms share.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "Platform/Common/Date.h"
#include "Platform/Common/UUID.h"
#include "Platform/Logging.h"

namespace platform {
namespace {

using namespace std::string_literals;

TEST(Date, IsPrintedInUTCCutToWholeSeconds) {
    const std::pair<double, std::string_view> cases[] = {
        {0, "2001-01-01T00:00:00Z"},
        {-978307200.5, "1969-12-31T23:59:59Z"},
        {785164320.25, "2025-11-18T13:12:00Z"},
        {std::nextafter(785164321.0, 0), "2025-11-18T13:12:00Z"},
        {99705600, "2004-02-29T00:00:00Z"},
        {Date::distantPast().secondsSinceReferenceDate(), "0000-12-30T00:00:00Z"},
        {1e300, "9999-12-31T23:59:59Z"},
        {-std::numeric_limits<double>::infinity(), "0000-01-01T00:00:00Z"},
        {std::numeric_limits<double>::quiet_NaN(), "0000-01-01T00:00:00Z"},
    };
    for (const auto& [seconds, text] : cases)
        EXPECT_EQ(NSISO8601DateFormatter().stringFromDate(Date::sinceReferenceDate(seconds)), text);
}

TEST(UUID, ReadsEitherCaseAndWritesUpperCase) {
    const std::string_view upper = "E621E1F8-C36C-495A-93FC-0C247A3E6E5F";
    EXPECT_EQ(UUID::fromString(upper)->uuidString(), upper);
    EXPECT_EQ(UUID::fromString("e621e1f8-C36c-495a-93fc-0c247a3e6e5f"), UUID::fromString(upper));

    for (const std::string_view bad :
         {"", "E621E1F8", "E621E1F8C36C495A93FC0C247A3E6E5F",
          "{E621E1F8-C36C-495A-93FC-0C247A3E6E5F}", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F ",
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5G", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
          "E621E1F80C36C-495A-93FC-0C247A3E6E5F", "E621E1F8-C36C-495A-93FC0-C247A3E6E5F",
          "E621E1F8-C36C-495A-93FC-0C247A3E6E5-", "-E621E1F-C36C-495A-93FC-0C247A3E6E5F"})
        EXPECT_EQ(UUID::fromString(bad), std::nullopt) << bad;

    // Random ones say that they are.
    UUID::Bytes ones;
    ones.fill(0xFF);
    EXPECT_EQ(UUID::randomFrom(ones).uuidString(), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    EXPECT_EQ(UUID::randomFrom({}).uuidString(), "00000000-0000-4000-8000-000000000000");
}

TEST(LogLine, HoldsItsArgumentsAndHidesPrivateTexts) {
    const auto secret = "secret"s;
    using logging::argument;
    const LogArgument all[] = {
        argument("%{public}s in clear"), argument(secret), argument(-7L), argument(std::size_t{9}),
        argument(std::uint16_t{443}),    argument(false),  argument(true)};
    constexpr std::string_view format =
        "[%{public}s|%s] %ld %{public}ld:%d up=%{bool}d,%{bool}d 100 percent";
    EXPECT_EQ(formatLogLine(format, all, false),
              "[%{public}s in clear|secret] -7 9:443 up=false,true 100 percent");
    EXPECT_EQ(formatLogLine(format, all, true),
              "[%{public}s in clear|<private>] -7 9:443 up=false,true 100 percent");
    EXPECT_EQ(formatLogLine("no conversion", {}, true), "no conversion");
}

}  // namespace
}  // namespace platform
