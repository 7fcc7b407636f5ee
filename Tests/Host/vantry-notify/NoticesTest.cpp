#include "Host/vantry-notify/Notices.h"

#include <gtest/gtest.h>

namespace vantrynotify {
namespace {

using platform::Date;

vantry::ActivityLogEntryIPC entry(const char* application, const char* decision,
                                  const char* route) {
    vantry::ActivityLogEntryIPC made{};
    made.bundleId = application;
    made.routingDecision = decision;
    made.actualRoute = route;
    return made;
}

TEST(NoticesTest, EachReasonOnceAnHourAndNotManyAtOnce) {
    Notices notices;
    const auto count = [&](const char* application, const char* decision, const char* route,
                           double at) {
        return notices.about({entry(application, decision, route)}, Date::since1970(at)).size();
    };
    EXPECT_EQ(count("a", "vpn", "vpn", 0), 0U);
    EXPECT_EQ(count("a", "direct", "direct", 0), 0U);
    EXPECT_EQ(count("run.curl.12", "block", "blocked", 0), 0U);
    EXPECT_EQ(count("a", "block", "blocked", 0), 1U);
    EXPECT_EQ(count("a", "block", "blocked", 100), 0U);
    EXPECT_EQ(count("a", "vpn", "blocked", 100), 1U);
    EXPECT_EQ(count("a", "direct", "vpn", 100), 1U);
    EXPECT_EQ(count("b", "block", "blocked", 100), 1U);
    EXPECT_EQ(count("c", "block", "blocked", 105), 0U) << "the fourth in ten seconds";
    EXPECT_EQ(count("c", "block", "blocked", 115), 1U);
    EXPECT_EQ(count("a", "block", "blocked", 3700), 1U);
}

}  // namespace
}  // namespace vantrynotify
