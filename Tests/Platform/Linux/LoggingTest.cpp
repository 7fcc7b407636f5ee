#include "Platform/Logging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Logging/LogStore.h"
#include "Platform/Linux/Logging/LogWriter.h"

namespace platform {
namespace {

constexpr Logger logger{"org.example.subsystem", "TransparentProxy"};

TEST(Logging, LevelsThatAreOffWriteNothing) {
    ::testing::internal::CaptureStderr();
    logger.debug("nothing");
    EXPECT_TRUE(flushLog());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    Logger::setLowestLevel(LogLevel::debug);
    ::testing::internal::CaptureStderr();
    logger.debug("%s, %ld", "something", 7);
    EXPECT_TRUE(flushLog());
    EXPECT_TRUE(::testing::internal::GetCapturedStderr().ends_with(
        " TransparentProxy debug: something, 7\n"));
}

// What is written to a place that takes one line at a time, when the test lets it.
class SlowPlace {
public:
    void write(const LogLine& line) {
        const MutexGuard guard(mutex);
        while (permitted == 0) changed.wait(mutex);
        --permitted;
        lines.push_back(line.text);
    }
    void permit(std::size_t count) {
        const MutexGuard guard(mutex);
        permitted += count;
        changed.notifyAll();
    }
    std::vector<std::string> taken() {
        const MutexGuard guard(mutex);
        return lines;
    }

private:
    Mutex mutex;
    Condition changed;
    std::size_t permitted GUARDED_BY(mutex) = 0;
    std::vector<std::string> lines GUARDED_BY(mutex);
};

TEST(Logging, APlaceThatStallsHoldsUpNobodyAndTheGapIsSaidWhereItIs) {
    SlowPlace place;
    LogWriter writer(
        [&](const LogLine& line) {
            place.write(line);
            return true;
        },
        4);
    const auto log = [&](int first, int last) {
        for (int number = first; number <= last; ++number)
            writer.add({.subsystem = "", .category = "", .text = std::to_string(number)});
    };
    log(1, 100);
    EXPECT_FALSE(writer.flush(std::chrono::milliseconds(20)));
    const std::uint64_t lost = writer.dropped();
    EXPECT_GE(lost, 95u);
    place.permit(1000);
    EXPECT_TRUE(writer.flush(std::chrono::seconds(10)));
    EXPECT_TRUE(writer.flush(std::chrono::seconds(10)));  // of what the writer added itself
    log(101, 101);
    EXPECT_TRUE(writer.flush(std::chrono::seconds(10)));

    auto lines = place.taken();
    ASSERT_EQ(lines.size(), 100 - lost + 3);
    EXPECT_EQ(lines.back(), "101");
    const std::size_t gap = 100 - lost;
    for (std::size_t index = 0; index < gap; ++index)
        EXPECT_EQ(lines[index], std::to_string(index + 1));
    EXPECT_THAT(lines[gap], ::testing::HasSubstr("from here on lines are lost"));
    EXPECT_EQ(lines[gap + 1], std::to_string(lost) + " log lines were lost");
}

TEST(Logging, WhatAnArgumentHoldsNeitherEndsTheLineNorSteersATerminal) {
    struct Case {
        std::string text, shown;
    };
    const Case cases[] = {
        {"a\nb", "a\\nb"},
        {"\x1b[2J\r\t", "\\x1b[2J\\x0d\\x09"},
        {std::string("nul\0nul", 7), "nul\\x00nul"},
        {"\x7f", "\\x7f"},
        {"\xc2\x9b"
         "31m",
         "\xc2\\x9b31m"},
        {"gr\xc3\xbc\xc3\x9f \xe2\x82\xac", "gr\xc3\xbc\xc3\x9f \xe2\x82\xac"},
    };
    for (const auto& [text, shown] : cases) EXPECT_EQ(visibleText(text), shown);
}

TEST(Logging, TheJournalIsChosenOnlyForItsOwnStream) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const FileDescriptor reading(ends[0]), writing(ends[1]);
    struct stat status;
    ASSERT_EQ(::fstat(writing.get(), &status), 0);
    const std::string own = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
    EXPECT_TRUE(isJournalStream(own.c_str(), writing.get()));
    EXPECT_FALSE(isJournalStream((own + "0").c_str(), writing.get()));
    EXPECT_FALSE(isJournalStream("", writing.get()));
    EXPECT_FALSE(isJournalStream(nullptr, writing.get()));
}

}  // namespace
}  // namespace platform
