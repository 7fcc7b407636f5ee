#include "Host/vantryctl/TopScreen.h"

#include <gtest/gtest.h>

namespace vantryctl {
namespace {

using Words = std::vector<std::string>;
using Key = TopScreen::Key;

platform::JSONObject answer(std::int64_t bytesOfA, std::int64_t bytesOfB) {
    const auto application = [](const char* name, std::int64_t bytes) {
        return platform::JSONObject{
            {"identifier", name},
            {"route", "direct"},
            {"decidedBy", "rule"},
            {"connections",
             platform::JSONArray{platform::JSONObject{
                 {"id", name}, {"sent", bytes}, {"received", bytes / 2}, {"isDirect", true}}}}};
    };
    return {{"applications",
             platform::JSONArray{application("a", bytesOfA), application("b", bytesOfB)}}};
}

TEST(TopScreenTest, ShowsWhatGrowsFirstAndKeysChangeWhatIsChosen) {
    TrafficModel model;
    model.take(answer(1000, 1000), 0);
    model.take(answer(1500, 5000), 2);
    model.take({}, 1);  // all connections are over; their bytes still count
    model.take(answer(1500, 5000), 1);
    const auto list = model.applications();
    EXPECT_EQ(list[0].identifier, "b");
    EXPECT_EQ(list[1].sent, 3000U) << "the connection that came again counts from its beginning";

    Words ran;
    TopScreen screen([&](const Words& words, std::size_t) {
        ran = words;
        return std::string("Done.\nMore.\n");
    });
    const auto shown = screen.draw(model, "title", 80, 10);
    EXPECT_TRUE(shown.size() == 10 && shown[2].isChosen && shown[2].text.starts_with("b "));
    const auto type = [&](const char* keys) {
        bool stays = true;
        for (; *keys != 0; ++keys)
            stays = screen.press(*keys == '\n' ? Key::enter : Key::character, *keys, model);
        return stays;
    };
    EXPECT_TRUE(type("d"));
    EXPECT_EQ(ran, (Words{"rules", "set", "b", "direct"}));
    screen.press(Key::down, 0, model);
    EXPECT_TRUE(type("b"));
    EXPECT_EQ(ran, (Words{"rules", "block", "a"}));
    EXPECT_TRUE(type("/b\nu"));
    EXPECT_EQ(ran, (Words{"rules", "unblock", "b"}));
    EXPECT_TRUE(type("e"));
    EXPECT_TRUE(screen.draw(model, "title", 80, 10)[2].text.starts_with("More."));
    EXPECT_TRUE(type("x"));
    EXPECT_FALSE(type("q"));
}

}  // namespace
}  // namespace vantryctl
