#pragma once
// What every converter test starts from: a diagnostic log of its own with the
// DEBUG level on, the converter's trace off, the zone UTC (put back after),
// and a mark in the log so that only the lines of the operation under test
// are looked at.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "converter/LogConverter.h"
#include "support/ScopedTimeZone.h"
#include "support/TestSupport.h"

class ConverterFixture : public ::testing::Test {
protected:
    void SetUp() override {
        testing_support::initLogger(logPath_, true);
        // The trace switch is process-wide: every test starts with it off.
        LogConverter::setDebugMode(false);
        LogConverter::getInstance();
        markLog();
    }
    void TearDown() override { LogConverter::setDebugMode(false); }

    LogConverter& converter() { return LogConverter::getInstance(); }

    // Later assertions see only what was logged after this point, so that
    // set-up messages are never mistaken for those of the operation under test.
    void markLog() { logMark_ = testing_support::readLines(logPath_).size(); }

    std::vector<std::string> diagnostics() const {
        const std::vector<std::string> lines =
            testing_support::stripTimestamps(testing_support::readLines(logPath_));
        return std::vector<std::string>(lines.begin() + std::min(logMark_, lines.size()),
                                        lines.end());
    }
    bool logged(const std::string& line) const {
        return testing_support::containsLine(diagnostics(), line);
    }

    testing_support::TempDir dir_;
    std::string logPath_ = dir_.file("converter.log");
    testing_support::ScopedTimeZone utc_{"UTC"};
    std::size_t logMark_ = 0;
};
