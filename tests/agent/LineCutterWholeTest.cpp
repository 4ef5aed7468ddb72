#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "reader/LineCutter.h"

namespace {

std::vector<std::string> cutAll(const std::string& data, std::size_t maxLines,
                                std::size_t* consumed = nullptr) {
    std::vector<std::string> lines;
    const LineCutter::Walk walk = LineCutter::cutWhole(
        data.data(), data.size(), maxLines,
        [&](const char* text, std::size_t length) { lines.emplace_back(text, length); });
    if (consumed != nullptr) {
        *consumed = static_cast<std::size_t>(walk.rest - data.data());
    }
    return lines;
}

}  // namespace

TEST(LineCutterWholeTest, KeepsZeroBytesAndEmptyLines) {
    const std::string data("a\0b\n\nc\r\x1b\n", 9);
    const std::vector<std::string> expected = {std::string("a\0b", 3), "", "c\r\x1b"};
    EXPECT_EQ(expected, cutAll(data, 10));
}

TEST(LineCutterWholeTest, LeavesAnUnfinishedLineUncut) {
    std::size_t consumed = 0;
    EXPECT_EQ(std::vector<std::string>{"one"}, cutAll("one\ntw", 10, &consumed));
    EXPECT_EQ(4u, consumed);
}

TEST(LineCutterWholeTest, StopsAtTheLineLimit) {
    std::size_t consumed = 0;
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), cutAll("a\nb\nc\n", 2, &consumed));
    EXPECT_EQ(4u, consumed);
}
