#include "Platform/Logging.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "Platform/Linux/FileDescriptor.h"
#include "Platform/Linux/Logging/LogStore.h"

namespace platform {
namespace {

constexpr Logger logger{"org.example.subsystem", "TransparentProxy"};

TEST(Logging, LevelsThatAreOffWriteNothing) {
    ::testing::internal::CaptureStderr();
    logger.debug("nothing");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    Logger::setLowestLevel(LogLevel::debug);
    ::testing::internal::CaptureStderr();
    logger.debug("%s, %ld", "something", 7);
    EXPECT_TRUE(::testing::internal::GetCapturedStderr().ends_with(
        " TransparentProxy debug: something, 7\n"));
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
