// The configuration loader on real files in a temporary directory.

#include "app/Config.h"

#include <gtest/gtest.h>

#include <string>

#include "support/TestSupport.h"

using namespace testing_support;

namespace {

class ConfigTest : public ::testing::Test {
protected:
    // Writes `content` as the configuration file and loads it over the
    // service's defaults.
    bool load(const std::string& content) {
        writeFile(path(), content);
        return loadConfig(path(), input_, output_, debug_);
    }

    std::string path() const { return dir_.file("qirn-log-converter.conf"); }

    TempDir dir_;
    std::string input_ = "/var/log/qirn_audit.log";
    std::string output_ = "/var/log/zarvo_container.log";
    bool debug_ = false;
};

TEST_F(ConfigTest, MissingFileReturnsFalseAndKeepsTheDefaults) {
    EXPECT_FALSE(loadConfig(dir_.file("absent.conf"), input_, output_, debug_));

    EXPECT_EQ("/var/log/qirn_audit.log", input_);
    EXPECT_EQ("/var/log/zarvo_container.log", output_);
    EXPECT_FALSE(debug_);
}

TEST_F(ConfigTest, MissingFileLeavesAnEarlierDebugSwitchOn) {
    debug_ = true;

    EXPECT_FALSE(loadConfig(dir_.file("absent.conf"), input_, output_, debug_));

    EXPECT_TRUE(debug_);
}

TEST_F(ConfigTest, EmptyFileReturnsTrueAndChangesNothing) {
    EXPECT_TRUE(load(""));

    EXPECT_EQ("/var/log/qirn_audit.log", input_);
    EXPECT_EQ("/var/log/zarvo_container.log", output_);
    EXPECT_FALSE(debug_);
}

TEST_F(ConfigTest, FileWithoutRecognisedKeysReturnsTrue) {
    EXPECT_TRUE(load("# only a comment\nno equals sign here\ncolour=blue\n=orphan value\n"));

    EXPECT_EQ("/var/log/qirn_audit.log", input_);
    EXPECT_EQ("/var/log/zarvo_container.log", output_);
    EXPECT_FALSE(debug_);
}

TEST_F(ConfigTest, AllThreeKeysAreApplied) {
    EXPECT_TRUE(load("input_log=/data/in.log\noutput_log=/data/out.log\ndebug=true\n"));

    EXPECT_EQ("/data/in.log", input_);
    EXPECT_EQ("/data/out.log", output_);
    EXPECT_TRUE(debug_);
}

TEST_F(ConfigTest, KeyOnlyChangesItsOwnSetting) {
    EXPECT_TRUE(load("output_log=/data/out.log\n"));

    EXPECT_EQ("/var/log/qirn_audit.log", input_);
    EXPECT_EQ("/data/out.log", output_);
    EXPECT_FALSE(debug_);
}

TEST_F(ConfigTest, BlanksAndTabsAroundKeyAndValueAreTrimmed) {
    EXPECT_TRUE(load(" \t input_log \t= \t/data/in.log \t\n"));

    EXPECT_EQ("/data/in.log", input_);
}

TEST_F(ConfigTest, CarriageReturnMakesDebugTrueCountAsFalse) {
    debug_ = true;

    EXPECT_TRUE(load("debug=true\r\n"));

    EXPECT_FALSE(debug_);
}

TEST_F(ConfigTest, CarriageReturnStaysInPaths) {
    EXPECT_TRUE(load("input_log=/data/in.log\r\noutput_log=/data/out.log\r\n"));

    EXPECT_EQ("/data/in.log\r", input_);
    EXPECT_EQ("/data/out.log\r", output_);
}

TEST_F(ConfigTest, BlankBeforeHashIsNotACommentAndItsKeyIsIgnored) {
    EXPECT_TRUE(load(" #input_log=/data/in.log\n\t# debug=true\n"));

    EXPECT_EQ("/var/log/qirn_audit.log", input_);
    EXPECT_FALSE(debug_);
}

TEST_F(ConfigTest, HashInTheFirstColumnIsAComment) {
    EXPECT_TRUE(load("#input_log=/data/in.log\n"));

    EXPECT_EQ("/var/log/qirn_audit.log", input_);
}

TEST_F(ConfigTest, HashInsideAValueIsPartOfIt) {
    EXPECT_TRUE(load("input_log=/data/in.log # the audit log\n"));

    EXPECT_EQ("/data/in.log # the audit log", input_);
}

TEST_F(ConfigTest, DebugYesThenNoEndsFalse) {
    EXPECT_TRUE(load("debug=yes\ndebug=no\n"));

    EXPECT_FALSE(debug_);
}

TEST_F(ConfigTest, DebugAcceptsExactlyTrueOneAndYes) {
    for (const std::string value : {"true", "1", "yes"}) {
        debug_ = false;
        EXPECT_TRUE(load("debug=" + value + "\n"));
        EXPECT_TRUE(debug_) << value;
    }
}

TEST_F(ConfigTest, DebugOtherValuesSwitchItOff) {
    for (const std::string value : {"True", "YES", "TRUE", "on", "2", "", "   ", "yes please"}) {
        debug_ = true;
        EXPECT_TRUE(load("debug=" + value + "\n"));
        EXPECT_FALSE(debug_) << "'" << value << "'";
    }
}

TEST_F(ConfigTest, EmptyInputLogValueSetsAnEmptyPath) {
    EXPECT_TRUE(load("input_log=\n"));

    EXPECT_EQ("", input_);
}

TEST_F(ConfigTest, BlankOnlyOutputLogValueSetsAnEmptyPath) {
    EXPECT_TRUE(load("output_log= \t \n"));

    EXPECT_EQ("", output_);
}

TEST_F(ConfigTest, OutputLogValueContainingEqualsIsKeptWhole) {
    EXPECT_TRUE(load("output_log=/data/a=b.log\n"));

    EXPECT_EQ("/data/a=b.log", output_);
}

TEST_F(ConfigTest, LastOccurrenceOfAKeyWins) {
    EXPECT_TRUE(load("input_log=/data/first.log\ninput_log=/data/second.log\n"));

    EXPECT_EQ("/data/second.log", input_);
}

TEST_F(ConfigTest, KeysAreCaseSensitive) {
    EXPECT_TRUE(load("Input_log=/data/in.log\nOUTPUT_LOG=/data/out.log\nDebug=true\n"));

    EXPECT_EQ("/var/log/qirn_audit.log", input_);
    EXPECT_EQ("/var/log/zarvo_container.log", output_);
    EXPECT_FALSE(debug_);
}

TEST_F(ConfigTest, LastLineWithoutNewlineIsApplied) {
    EXPECT_TRUE(load("input_log=/data/in.log"));

    EXPECT_EQ("/data/in.log", input_);
}

TEST_F(ConfigTest, VeryLongValueIsKeptWhole) {
    const std::string longPath = "/data/" + std::string(100000, 'x') + ".log";

    EXPECT_TRUE(load("input_log=" + longPath + "\n"));

    EXPECT_EQ(longPath, input_);
}

}  // namespace
