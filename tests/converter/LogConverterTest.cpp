#include "converter/LogConverter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "converter/ConverterFixture.h"
#include "support/AuditLines.h"
#include "support/ScopedTimeZone.h"
#include "support/TestSupport.h"

using namespace std::string_literals;
using testing_support::containsLine;
using testing_support::containsSubstring;
using testing_support::countSubstring;
using testing_support::readLines;
using testing_support::ScopedTimeZone;
using testing_support::stripTimestamps;
using EventType = LogConverter::EventType;
using StatusType = LogConverter::StatusType;

namespace {

// The realistic lines shared with the other tests, at one fixed instant.
const std::string AVC_LINE = testing_support::avcLine(1731676205, "3f2a9c", "/etc/passwd");
const std::string NETCTL_LINE = testing_support::netctlLine(1731676205, "3f2a9c", "/usr/bin/curl");
const std::string SYSCALL_LINE = testing_support::syscallLine(1731676205);

struct ZoneCase {
    const char* zone;
    const char* expected;
};

LogConverter::ParseResult makeRecord(const std::string& containerId, const std::string& path,
                                     EventType event = EventType::FILECTL,
                                     StatusType status = StatusType::ENFORCING,
                                     const std::string& timestamp = "Nov 15 13:10:05") {
    LogConverter::ParseResult record;
    record.timestamp = timestamp;
    record.containerId = containerId;
    record.eventType = event;
    record.statusType = status;
    record.path = path;
    record.valid = true;
    return record;
}

using LogConverterTest = ConverterFixture;

// Output tests start from an empty duplicate cache even when earlier tests ran
// in the same process.
class LogConverterOutputTest : public LogConverterTest {
protected:
    void SetUp() override {
        LogConverterTest::SetUp();
        ASSERT_TRUE(testing_support::emptyDuplicateCache(dir_.file("drain.log")));
        testing_support::initLogger(logPath_, true);
        markLog();
    }
};

// ---------------------------------------------------------------------------
// Object and line filter

TEST(LogConverterLifecycleTest, InitializedIsLoggedOnceOnFirstGetInstance) {
    // A re-executed child is a fresh process whatever ran before in this one.
    // Before the logger is initialised it reports on standard error.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            LogConverter& first = LogConverter::getInstance();
            LogConverter& second = LogConverter::getInstance();
            std::exit(&first == &second ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), ::testing::Eq("[INFO] LogConverter initialized\n"));
}

TEST_F(LogConverterTest, LineWithoutTypeIsNotProcessed) {
    EXPECT_FALSE(converter().shouldProcess("msg=audit(1731676205.123:1): avc:  denied  { write }"));
}

TEST_F(LogConverterTest, AvcTypeLineIsProcessed) {
    EXPECT_TRUE(converter().shouldProcess("type=QIRN_AVC msg=..."));
}

TEST_F(LogConverterTest, NetctlTypeLineIsProcessed) {
    EXPECT_TRUE(converter().shouldProcess("type=QIRN_NETCTL msg=..."));
}

TEST_F(LogConverterTest, TypeFollowedByCommaIsRejected) {
    EXPECT_FALSE(converter().shouldProcess("type=QIRN_AVC,x"));
}

TEST_F(LogConverterTest, FirstTypeInsideLongerKeyDecides) {
    EXPECT_TRUE(converter().shouldProcess("subtype=QIRN_AVC type=OTHER"));
    EXPECT_FALSE(converter().shouldProcess("subtype=OTHER type=QIRN_AVC"));
}

TEST_F(LogConverterTest, TypeComparisonIsWholeValueAndCaseSensitive) {
    EXPECT_FALSE(converter().shouldProcess("type=QIRN_AVC2 msg=x"));
    EXPECT_FALSE(converter().shouldProcess("type=qirn_avc msg=x"));
    EXPECT_FALSE(converter().shouldProcess("type=QIRN_NET msg=x"));
    EXPECT_FALSE(converter().shouldProcess("type=SYSCALL msg=x"));
}

TEST_F(LogConverterTest, EmptyTypeValueIsRejected) {
    EXPECT_FALSE(converter().shouldProcess("type= QIRN_AVC"));
}

TEST_F(LogConverterTest, TypeAtVeryEndOfLineIsRejected) {
    EXPECT_FALSE(converter().shouldProcess("msg=x type="));
}

TEST_F(LogConverterTest, TypeValueRunsToEndOfLineWithoutBlank) {
    EXPECT_TRUE(converter().shouldProcess("msg=x type=QIRN_NETCTL"));
}

TEST_F(LogConverterTest, OnlyBlankEndsTypeValue) {
    EXPECT_FALSE(converter().shouldProcess("type=QIRN_AVC\tmsg=x"));
    EXPECT_FALSE(converter().shouldProcess("type=QIRN_AVC:msg=x"));
}

// ---------------------------------------------------------------------------
// Field extraction

TEST_F(LogConverterTest, UnquotedFieldEndsAtComma) {
    EXPECT_EQ("abc", converter().extractField("a=1 container_id=abc,def", "container_id"));
}

TEST_F(LogConverterTest, UnquotedFieldEndsAtBlankTabAndColon) {
    EXPECT_EQ("abc", converter().extractField("container_id=abc def", "container_id"));
    EXPECT_EQ("abc", converter().extractField("container_id=abc\tdef", "container_id"));
    EXPECT_EQ("abc", converter().extractField("container_id=abc:def", "container_id"));
    EXPECT_EQ("abc;d=f", converter().extractField("container_id=abc;d=f", "container_id"));
}

TEST_F(LogConverterTest, QuotedFieldKeepsBlanks) {
    EXPECT_EQ("abc def",
              converter().extractField("a=1 container_id=\"abc def\" b=2", "container_id"));
    EXPECT_EQ("a,b:c", converter().extractField("container_id=\"a,b:c\"", "container_id"));
}

TEST_F(LogConverterTest, UnterminatedQuoteGivesEmptyField) {
    EXPECT_EQ("", converter().extractField("a=1 container_id=\"abc def", "container_id"));
}

TEST_F(LogConverterTest, QuoteAsLastCharacterGivesEmptyField) {
    EXPECT_EQ("", converter().extractField("a=1 container_id=\"", "container_id"));
}

TEST_F(LogConverterTest, KeyAtEndOfLineGivesEmptyField) {
    EXPECT_EQ("", converter().extractField("a=1 container_id=", "container_id"));
}

TEST_F(LogConverterTest, DelimiterRightAfterEqualsGivesEmptyField) {
    EXPECT_EQ("", converter().extractField("container_id=,abc", "container_id"));
    EXPECT_EQ("", converter().extractField("container_id= abc", "container_id"));
}

TEST_F(LogConverterTest, MissingKeyGivesEmptyField) {
    EXPECT_EQ("", converter().extractField("a=1 b=2", "container_id"));
    EXPECT_EQ("", converter().extractField("container_id abc", "container_id"));
}

TEST_F(LogConverterTest, FieldSearchMatchesInsideLongerKey) {
    EXPECT_EQ("/bin/x", converter().extractField("proc_path=/bin/x path=/y", "path"));
}

TEST_F(LogConverterTest, FieldSearchSkipsKeyNotFollowedByEquals) {
    EXPECT_EQ("/y", converter().extractField("path /x path=/y", "path"));
}

TEST_F(LogConverterTest, QuotedExtractionGivesSameAsFieldExtraction) {
    EXPECT_EQ("abc", converter().extractQuotedField("a=1 container_id=abc,def", "container_id"));
    EXPECT_EQ("abc def",
              converter().extractQuotedField("container_id=\"abc def\"", "container_id"));
    EXPECT_EQ("", converter().extractQuotedField("container_id=\"abc", "container_id"));
}

// ---------------------------------------------------------------------------
// Event-type classification

TEST_F(LogConverterTest, NetctlTypeIgnoresOperation) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(EventType::NETCTL, converter().determineEventType("QIRN_NETCTL", ""));
    EXPECT_TRUE(logged("[DEBUG] Type is QIRN_NETCTL -> netctl"));
}

TEST_F(LogConverterTest, NetctlTypeIsComparedCaseInsensitively) {
    EXPECT_EQ(EventType::NETCTL, converter().determineEventType("qirn_netctl", "x"));
}

TEST_F(LogConverterTest, ExecuteOperationIsExectl) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(EventType::EXECTL, converter().determineEventType("QIRN_AVC", "execute"));
    EXPECT_TRUE(logged("[DEBUG] Operation is exec/interpret -> exectl"));
}

TEST_F(LogConverterTest, UpperCaseExecuteOperationIsExectl) {
    EXPECT_EQ(EventType::EXECTL, converter().determineEventType("QIRN_AVC", "EXECUTE"));
}

TEST_F(LogConverterTest, InterpretOperationIsExectl) {
    EXPECT_EQ(EventType::EXECTL, converter().determineEventType("QIRN_AVC", "interpret"));
}

TEST_F(LogConverterTest, RenameOperationIsFilectl) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(EventType::FILECTL, converter().determineEventType("QIRN_AVC", "rename"));
    EXPECT_TRUE(logged("[DEBUG] Operation is write/truncate/setattr/unlink/rename -> filectl"));
}

TEST_F(LogConverterTest, EveryFileWordIsFilectl) {
    for (const char* operation :
         {"write", "truncate", "setattr", "unlink", "rename", "readwrite"}) {
        EXPECT_EQ(EventType::FILECTL, converter().determineEventType("QIRN_AVC", operation))
            << operation;
    }
}

TEST_F(LogConverterTest, ExecWinsOverFileWords) {
    EXPECT_EQ(EventType::EXECTL, converter().determineEventType("QIRN_AVC", "writeexecmod"));
}

TEST_F(LogConverterTest, ReadOperationIsUnsupported) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(EventType::UNKNOWN, converter().determineEventType("QIRN_AVC", "read"));
    EXPECT_TRUE(logged("[DEBUG] Unsupported type: QIRN_AVC"));
}

TEST_F(LogConverterTest, AppendAndEmptyOperationsAreUnsupported) {
    EXPECT_EQ(EventType::UNKNOWN, converter().determineEventType("QIRN_AVC", "append"));
    EXPECT_EQ(EventType::UNKNOWN, converter().determineEventType("QIRN_AVC", ""));
}

TEST_F(LogConverterTest, OtherTypeWithWriteIsUnknown) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(EventType::UNKNOWN, converter().determineEventType("OTHER", "write"));
    EXPECT_TRUE(logged("[DEBUG] Unsupported type: OTHER"));
}

TEST_F(LogConverterTest, UnsupportedTypeIsReportedAsPassedIn) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(EventType::UNKNOWN, converter().determineEventType("Qirn_Avc", "read"));
    EXPECT_TRUE(logged("[DEBUG] Unsupported type: Qirn_Avc"));
}

TEST_F(LogConverterTest, ClassificationTraceIsSilentWithDebugOff) {
    LogConverter::setDebugMode(false);
    converter().determineEventType("QIRN_NETCTL", "");
    converter().determineEventType("QIRN_AVC", "execute");
    converter().determineEventType("QIRN_AVC", "write");
    converter().determineEventType("QIRN_AVC", "read");
    EXPECT_FALSE(containsSubstring(diagnostics(), "[DEBUG]"));
}

// ---------------------------------------------------------------------------
// Status classification

TEST_F(LogConverterTest, UpperCaseDeniedIsEnforcing) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(StatusType::ENFORCING, converter().determineStatusType("avc:  DENIED  { x }"));
    EXPECT_TRUE(logged("[DEBUG] Extracted status word: DENIED"));
    EXPECT_TRUE(logged("[DEBUG] Status mapping (contains denied): denied -> enforcing"));
}

TEST_F(LogConverterTest, DetectedWithoutBlankIsPermissive) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(StatusType::PERMISSIVE, converter().determineStatusType("avc:detected"));
    EXPECT_TRUE(logged("[DEBUG] Extracted status word: detected"));
    EXPECT_TRUE(logged("[DEBUG] Status mapping (contains detect): detected -> permissive"));
}

TEST_F(LogConverterTest, BlanksOnlyAfterAvcGiveEmptyWordAndError) {
    LogConverter::setDebugMode(false);
    EXPECT_EQ(StatusType::UNKNOWN, converter().determineStatusType("avc:   "));
    EXPECT_TRUE(
        logged("[ERROR] Unexpected status word (neither denied nor detect):  in line: avc:   "));
}

TEST_F(LogConverterTest, LineWithoutAvcIsUnknownWithGatedMessageOnly) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(StatusType::UNKNOWN, converter().determineStatusType("type=QIRN_NETCTL denied"));
    EXPECT_TRUE(logged("[DEBUG] No 'avc:' found in line"));
    EXPECT_FALSE(containsSubstring(diagnostics(), "[ERROR]"));
}

TEST_F(LogConverterTest, LineWithoutAvcLogsNothingWithDebugOff) {
    LogConverter::setDebugMode(false);
    EXPECT_EQ(StatusType::UNKNOWN, converter().determineStatusType("type=QIRN_NETCTL denied"));
    EXPECT_FALSE(containsSubstring(diagnostics(), "No 'avc:' found in line"));
    EXPECT_FALSE(containsSubstring(diagnostics(), "[ERROR]"));
}

TEST_F(LogConverterTest, BraceAsFirstTokenIsUnexpectedWord) {
    LogConverter::setDebugMode(false);
    EXPECT_EQ(StatusType::UNKNOWN, converter().determineStatusType("avc: { denied }"));
    EXPECT_TRUE(logged(
        "[ERROR] Unexpected status word (neither denied nor detect): { in line: avc: { denied }"));
}

TEST_F(LogConverterTest, CommaStaysInStatusWord) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(StatusType::ENFORCING, converter().determineStatusType("avc: denied, x"));
    EXPECT_TRUE(logged("[DEBUG] Extracted status word: denied,"));
}

TEST_F(LogConverterTest, StatusWordEndsAtTabOrColon) {
    LogConverter::setDebugMode(true);
    EXPECT_EQ(StatusType::PERMISSIVE, converter().determineStatusType("avc:\t\tdetect:ed x"));
    EXPECT_TRUE(logged("[DEBUG] Extracted status word: detect"));
    EXPECT_EQ(StatusType::ENFORCING, converter().determineStatusType("avc: denied\tx"));
}

TEST_F(LogConverterTest, DeniedIsTestedBeforeDetect) {
    EXPECT_EQ(StatusType::ENFORCING, converter().determineStatusType("avc: detect-denied"));
}

TEST_F(LogConverterTest, OnlyFirstAvcIsRead) {
    EXPECT_EQ(StatusType::PERMISSIVE,
              converter().determineStatusType("avc: detected { x } avc: denied"));
}

TEST_F(LogConverterTest, UnexpectedWordIsReportedLowerCased) {
    LogConverter::setDebugMode(false);
    EXPECT_EQ(StatusType::UNKNOWN, converter().determineStatusType("avc: Granted x"));
    EXPECT_TRUE(
        logged("[ERROR] Unexpected status word (neither denied nor detect): granted in line: avc: "
               "Granted x"));
}

TEST_F(LogConverterTest, StatusTraceIsSilentWithDebugOff) {
    LogConverter::setDebugMode(false);
    converter().determineStatusType("avc:  denied  { x }");
    converter().determineStatusType("avc:  detected  { x }");
    EXPECT_FALSE(containsSubstring(diagnostics(), "[DEBUG]"));
}

// ---------------------------------------------------------------------------
// Timestamp conversion, each under three fixed zones

TEST_F(LogConverterTest, FractionOfStampIsIgnored) {
    for (const ZoneCase& c :
         {ZoneCase{"UTC", "Nov 15 13:10:05"}, ZoneCase{"Asia/Tokyo", "Nov 15 22:10:05"},
          ZoneCase{"America/New_York", "Nov 15 08:10:05"}}) {
        ScopedTimeZone zone(c.zone);
        EXPECT_EQ(c.expected, converter().convertTimestamp("1731676205.123")) << c.zone;
        EXPECT_EQ(c.expected, converter().convertTimestamp("1731676205")) << c.zone;
    }
}

TEST_F(LogConverterTest, ThirteenDigitStampIsMilliseconds) {
    for (const ZoneCase& c :
         {ZoneCase{"UTC", "Nov 15 13:10:05"}, ZoneCase{"Asia/Tokyo", "Nov 15 22:10:05"},
          ZoneCase{"America/New_York", "Nov 15 08:10:05"}}) {
        ScopedTimeZone zone(c.zone);
        EXPECT_EQ(c.expected, converter().convertTimestamp("1731676205123")) << c.zone;
    }
}

TEST_F(LogConverterTest, ThresholdItselfCountsAsSeconds) {
    for (const ZoneCase& c :
         {ZoneCase{"UTC", "Nov 20 17:46:40"}, ZoneCase{"Asia/Tokyo", "Nov 21 02:46:40"},
          ZoneCase{"America/New_York", "Nov 20 12:46:40"}}) {
        ScopedTimeZone zone(c.zone);
        EXPECT_EQ(c.expected, converter().convertTimestamp("10000000000")) << c.zone;
    }
}

TEST_F(LogConverterTest, JustAboveThresholdIsDividedByThousand) {
    for (const ZoneCase& c :
         {ZoneCase{"UTC", "Apr 26 17:46:40"}, ZoneCase{"Asia/Tokyo", "Apr 27 02:46:40"},
          ZoneCase{"America/New_York", "Apr 26 13:46:40"}}) {
        ScopedTimeZone zone(c.zone);
        EXPECT_EQ(c.expected, converter().convertTimestamp("10000000001")) << c.zone;
    }
}

TEST_F(LogConverterTest, NonNumericAndEmptyStampsGiveEmptyText) {
    for (const char* zoneName : {"UTC", "Asia/Tokyo", "America/New_York"}) {
        ScopedTimeZone zone(zoneName);
        EXPECT_EQ("", converter().convertTimestamp("abc")) << zoneName;
        EXPECT_EQ("", converter().convertTimestamp("")) << zoneName;
        EXPECT_EQ("", converter().convertTimestamp("   ")) << zoneName;
        EXPECT_EQ("", converter().convertTimestamp("-")) << zoneName;
        EXPECT_EQ("", converter().convertTimestamp("+ 42")) << zoneName;
        EXPECT_EQ("", converter().convertTimestamp(".5")) << zoneName;
    }
}

TEST_F(LogConverterTest, LeadingBlankIsSkipped) {
    for (const ZoneCase& c :
         {ZoneCase{"UTC", "Jan 01 00:00:42"}, ZoneCase{"Asia/Tokyo", "Jan 01 09:00:42"},
          ZoneCase{"America/New_York", "Dec 31 19:00:42"}}) {
        ScopedTimeZone zone(c.zone);
        EXPECT_EQ(c.expected, converter().convertTimestamp(" 42")) << c.zone;
        EXPECT_EQ(c.expected, converter().convertTimestamp("\t\n42")) << c.zone;
        EXPECT_EQ(c.expected, converter().convertTimestamp("+42")) << c.zone;
        EXPECT_EQ(c.expected, converter().convertTimestamp("42abc")) << c.zone;
    }
}

TEST_F(LogConverterTest, NegativeStampIsBeforeEpoch) {
    for (const ZoneCase& c :
         {ZoneCase{"UTC", "Dec 31 23:59:59"}, ZoneCase{"Asia/Tokyo", "Jan 01 08:59:59"},
          ZoneCase{"America/New_York", "Dec 31 18:59:59"}}) {
        ScopedTimeZone zone(c.zone);
        EXPECT_EQ(c.expected, converter().convertTimestamp("-1")) << c.zone;
    }
}

TEST_F(LogConverterTest, StampOutsideSixtyFourBitsGivesEmptyText) {
    for (const char* zoneName : {"UTC", "Asia/Tokyo", "America/New_York"}) {
        ScopedTimeZone zone(zoneName);
        EXPECT_EQ("", converter().convertTimestamp("99999999999999999999")) << zoneName;
        EXPECT_EQ("", converter().convertTimestamp("9223372036854775808")) << zoneName;
        EXPECT_EQ("", converter().convertTimestamp("-9223372036854775809")) << zoneName;
    }
}

TEST_F(LogConverterTest, LargestSixtyFourBitStampIsMilliseconds) {
    // 9223372036854775807 ms is 9223372036854775 s, far in the future but
    // still representable as a broken-down time.
    for (const char* zoneName : {"UTC", "Asia/Tokyo", "America/New_York"}) {
        ScopedTimeZone zone(zoneName);
        EXPECT_EQ(15u, converter().convertTimestamp("9223372036854775807").size()) << zoneName;
    }
}

TEST_F(LogConverterTest, TimeBeyondBrokenDownRangeGivesEmptyText) {
    // The year of this instant does not fit the broken-down time, so the
    // local-time conversion itself fails.
    for (const char* zoneName : {"UTC", "Asia/Tokyo", "America/New_York"}) {
        ScopedTimeZone zone(zoneName);
        EXPECT_EQ("", converter().convertTimestamp("-9223372036854775808")) << zoneName;
    }
}

TEST_F(LogConverterTest, SameSecondFollowsZoneChange) {
    {
        ScopedTimeZone zone("Asia/Tokyo");
        EXPECT_EQ("Nov 15 22:10:05", converter().convertTimestamp("1731676205"));
    }
    {
        ScopedTimeZone zone("America/New_York");
        EXPECT_EQ("Nov 15 08:10:05", converter().convertTimestamp("1731676205"));
    }
}

// ---------------------------------------------------------------------------
// Line parsing

TEST_F(LogConverterTest, OtherTypeLineIsInvalidAndSilentWithDebugOff) {
    LogConverter::setDebugMode(false);
    const std::vector<std::string> before = diagnostics();

    const LogConverter::ParseResult result = converter().parseLine(SYSCALL_LINE);

    EXPECT_FALSE(result.valid);
    EXPECT_EQ(before, diagnostics());
}

TEST_F(LogConverterTest, OtherTypeLineIsTracedWithDebugOn) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(SYSCALL_LINE);

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Parsing line: " + SYSCALL_LINE));
    EXPECT_TRUE(logged("[DEBUG] Line should not be processed"));
}

TEST_F(LogConverterTest, TypicalAvcLineParses) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(AVC_LINE);

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("Nov 15 13:10:05", result.timestamp);
    EXPECT_EQ("3f2a9c", result.containerId);
    EXPECT_EQ(EventType::FILECTL, result.eventType);
    EXPECT_EQ(StatusType::ENFORCING, result.statusType);
    EXPECT_EQ("/etc/passwd", result.path);
    EXPECT_EQ("", result.spare);
    const std::vector<std::string> expectedTrace = {
        "[DEBUG] Parsing line: " + AVC_LINE,
        "[DEBUG] Container ID from container_id field: 3f2a9c",
        "[DEBUG] Converted timestamp: Nov 15 13:10:05",
        "[DEBUG] Type: QIRN_AVC",
        "[DEBUG] Path: /etc/passwd",
        "[DEBUG] Operation: write",
        "[DEBUG] Operation is write/truncate/setattr/unlink/rename -> filectl",
        "[DEBUG] Extracted status word: denied",
        "[DEBUG] Status mapping (contains denied): denied -> enforcing",
        "[DEBUG] Parse successful - container_id: 3f2a9c, type: QIRN_AVC, event: 2, path: "
        "/etc/passwd, status: 1",
    };
    const std::vector<std::string> log = diagnostics();
    ASSERT_GE(log.size(), expectedTrace.size());
    EXPECT_EQ(expectedTrace, std::vector<std::string>(log.end() - expectedTrace.size(), log.end()));
}

TEST_F(LogConverterTest, TypicalNetctlLineParses) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(NETCTL_LINE);

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("Nov 15 13:10:05", result.timestamp);
    EXPECT_EQ("3f2a9c", result.containerId);
    EXPECT_EQ(EventType::NETCTL, result.eventType);
    EXPECT_EQ(StatusType::PERMISSIVE, result.statusType);
    EXPECT_EQ("/usr/bin/curl", result.path);
    EXPECT_TRUE(logged("[DEBUG] NETCTL path extracted from proc_path: /usr/bin/curl"));
    EXPECT_TRUE(logged(
        "[DEBUG] Parse successful - container_id: 3f2a9c, type: QIRN_NETCTL, event: 3, path: "
        "/usr/bin/curl, status: 2"));
}

TEST_F(LogConverterTest, SuccessTracePrintsEnumsAsNumbers) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  detected  { execute } name=/bin/sh "
        "container_id=num1");

    EXPECT_TRUE(result.valid);
    EXPECT_TRUE(logged(
        "[DEBUG] Parse successful - container_id: num1, type: QIRN_AVC, event: 1, path: /bin/sh, "
        "status: 2"));
}

TEST_F(LogConverterTest, MatchingLineTraceIsSilentWithDebugOff) {
    LogConverter::setDebugMode(false);
    const std::vector<std::string> before = diagnostics();

    EXPECT_TRUE(converter().parseLine(AVC_LINE).valid);
    EXPECT_TRUE(converter().parseLine(NETCTL_LINE).valid);
    EXPECT_EQ(before, diagnostics());
}

TEST_F(LogConverterTest, MissingContainerIdIsRejected) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=/etc/passwd");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] container_id field not found in log, skipping"));
}

TEST_F(LogConverterTest, EmptyContainerIdIsRejected) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=/etc/passwd "
        "container_id= x=1");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] container_id field not found in log, skipping"));
}

TEST_F(LogConverterTest, RejectionTraceIsSilentWithDebugOff) {
    LogConverter::setDebugMode(false);
    const std::vector<std::string> before = diagnostics();

    EXPECT_FALSE(converter()
                     .parseLine("type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  "
                                "{ write } name=/etc/passwd")
                     .valid);
    EXPECT_FALSE(converter().parseLine("type=QIRN_AVC msg=audit(abc:1) container_id=c").valid);
    EXPECT_EQ(before, diagnostics());
}

TEST_F(LogConverterTest, QuotedContainerIdIsAccepted) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=/etc/passwd "
        "container_id=\"web 1\"");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("web 1", result.containerId);
}

TEST_F(LogConverterTest, StampEndsAtFirstColon) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:4567): avc:  denied  { write } name=/a "
        "container_id=stamp1");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("Nov 15 13:10:05", result.timestamp);
    EXPECT_TRUE(logged("[DEBUG] Converted timestamp: Nov 15 13:10:05"));
}

TEST_F(LogConverterTest, StampWithoutAnyColonEndsAtParenthesis) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_NETCTL msg=audit(1731676205) proc_path=/usr/bin/curl container_id=stamp2");

    // The time is taken; the line then fails for lack of a decision word.
    EXPECT_EQ("Nov 15 13:10:05", result.timestamp);
    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Converted timestamp: Nov 15 13:10:05"));
    EXPECT_TRUE(logged("[DEBUG] Unknown status"));
}

TEST_F(LogConverterTest, StampRunsToLaterColonPastParenthesis) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205) avc:  denied  { write } name=/a container_id=stamp3");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("Nov 15 13:10:05", result.timestamp);
}

TEST_F(LogConverterTest, EmptyStampBeforeColonIsNoTimestamp) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(:1): avc:  denied  { write } name=/a container_id=stamp4");

    EXPECT_FALSE(result.valid);
    EXPECT_EQ("stamp4", result.containerId);
    EXPECT_EQ("", result.timestamp);
    EXPECT_TRUE(logged("[DEBUG] No timestamp found"));
}

TEST_F(LogConverterTest, EmptyParenthesesWithoutColonIsNoTimestamp) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_NETCTL msg=audit() proc_path=/usr/bin/curl container_id=stamp5");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No timestamp found"));
}

TEST_F(LogConverterTest, EmptyParenthesesWithLaterColonFailsConversion) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit() avc:  denied  { write } name=/a container_id=stamp6");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Failed to convert timestamp"));
    EXPECT_FALSE(containsSubstring(diagnostics(), "No timestamp found"));
}

TEST_F(LogConverterTest, NonNumericStampFailsConversion) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(abc:1): avc:  denied  { write } name=/a container_id=stamp7");

    EXPECT_FALSE(result.valid);
    EXPECT_EQ("stamp7", result.containerId);
    EXPECT_TRUE(logged("[DEBUG] Failed to convert timestamp"));
}

TEST_F(LogConverterTest, LineWithoutStampIsNoTimestamp) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=x: avc:  denied  { write } name=/a container_id=stamp8");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No timestamp found"));
}

TEST_F(LogConverterTest, StampMarkerAtEndOfLineIsNoTimestamp) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result =
        converter().parseLine("type=QIRN_AVC container_id=stamp9 msg=audit(");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No timestamp found"));
}

TEST_F(LogConverterTest, QuotedNameKeepsBlank) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=\"/tmp/a b\" "
        "container_id=path1");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("/tmp/a b", result.path);
    EXPECT_TRUE(logged("[DEBUG] Path: /tmp/a b"));
}

TEST_F(LogConverterTest, UnquotedNameKeepsCommaColonAndTab) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=/tmp/x,y:z\tw "
        "container_id=path2");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("/tmp/x,y:z\tw", result.path);
}

TEST_F(LogConverterTest, UnquotedNameAtEndOfLineRunsToEnd) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } container_id=path3 "
        "name=/tmp/x,y");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("/tmp/x,y", result.path);
}

TEST_F(LogConverterTest, AvcLineWithoutNameHasNoPath) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } container_id=path4");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No path found"));
}

TEST_F(LogConverterTest, NameSearchMatchesInsideLongerKey) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } hostname=box "
        "name=/etc/hosts container_id=path5");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("box", result.path);
}

TEST_F(LogConverterTest, NameAtVeryEndOfLineHasNoPath) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } container_id=path6 "
        "name=");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No path found"));
}

TEST_F(LogConverterTest, EmptyQuotedNameHasNoPath) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=\"\" "
        "container_id=path7");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No path found"));
}

TEST_F(LogConverterTest, NetctlPathComesFromProcPath) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_NETCTL msg=audit(1731676205.500:2): avc:  detected  { connect } name=/other "
        "proc_path=/usr/bin/curl container_id=net1");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("/usr/bin/curl", result.path);
    EXPECT_TRUE(logged("[DEBUG] NETCTL path extracted from proc_path: /usr/bin/curl"));
    EXPECT_TRUE(logged("[DEBUG] Path: /usr/bin/curl"));
}

TEST_F(LogConverterTest, NetctlQuotedProcPathKeepsBlank) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_NETCTL msg=audit(1731676205.500:2): avc:  detected  { connect } "
        "proc_path=\"/opt/my app/bin\" container_id=net2");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("/opt/my app/bin", result.path);
}

TEST_F(LogConverterTest, NetctlWithoutProcPathHasNoPath) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_NETCTL msg=audit(1731676205.500:2): avc:  detected  { connect } name=/x "
        "container_id=net3");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No path found"));
    EXPECT_FALSE(containsSubstring(diagnostics(), "NETCTL path extracted"));
}

TEST_F(LogConverterTest, OperationLosesBlanksAndCase) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { Write Truncate } for "
        "name=/a container_id=op1");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ(EventType::FILECTL, result.eventType);
    EXPECT_TRUE(logged("[DEBUG] Operation: writetruncate"));
}

TEST_F(LogConverterTest, OperationLosesEveryKindOfWhiteSpace) {
    LogConverter::setDebugMode(true);
    converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  {\tRe\vad\fX\r } name=/a "
        "container_id=op2");

    EXPECT_TRUE(logged("[DEBUG] Operation: readx"));
}

TEST_F(LogConverterTest, LineWithoutBracesHasEmptyOperation) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  write name=/a container_id=op3");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Operation: "));
    EXPECT_TRUE(logged("[DEBUG] Unknown event type: type=QIRN_AVC, operation="));
}

TEST_F(LogConverterTest, ReadOperationIsUnknownEventType) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { read } name=/a "
        "container_id=op4");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Unsupported type: QIRN_AVC"));
    EXPECT_TRUE(logged("[DEBUG] Unknown event type: type=QIRN_AVC, operation=read"));
}

TEST_F(LogConverterTest, OnlyFirstBracesAreRead) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { read } { write } name=/a "
        "container_id=op5");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Operation: read"));
}

TEST_F(LogConverterTest, NetctlLineNeedsNoBraces) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_NETCTL msg=audit(1731676205.500:2): avc:  detected  proc_path=/usr/bin/curl "
        "container_id=net4");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ(EventType::NETCTL, result.eventType);
    EXPECT_EQ(StatusType::PERMISSIVE, result.statusType);
}

TEST_F(LogConverterTest, NetctlLineWithoutDecisionWordIsUnknownStatus) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_NETCTL msg=audit(1731676205.500:2) { connect } proc_path=/usr/bin/curl "
        "container_id=net5");

    EXPECT_FALSE(result.valid);
    EXPECT_EQ(EventType::NETCTL, result.eventType);
    EXPECT_TRUE(logged("[DEBUG] No 'avc:' found in line"));
    EXPECT_TRUE(logged("[DEBUG] Unknown status"));
}

TEST_F(LogConverterTest, UnexpectedDecisionWordIsUnknownStatusWithError) {
    LogConverter::setDebugMode(false);
    const std::string line =
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  granted  { write } name=/a "
        "container_id=st1";
    const LogConverter::ParseResult result = converter().parseLine(line);

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged(
        "[ERROR] Unexpected status word (neither denied nor detect): granted in line: " + line));
    EXPECT_FALSE(containsSubstring(diagnostics(), "Unknown status"));
}

TEST_F(LogConverterTest, SpareStaysEmpty) {
    EXPECT_EQ("", converter().parseLine(AVC_LINE).spare);
    EXPECT_EQ("", converter().parseLine(SYSCALL_LINE).spare);
}

// ---------------------------------------------------------------------------
// Output record and duplicate suppression

TEST_F(LogConverterOutputTest, AvcLineBecomesOutputLine) {
    LogConverter::setDebugMode(true);
    const std::string output = converter().convertToOutputFormat(converter().parseLine(AVC_LINE));

    EXPECT_EQ("Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing",
              output);
    EXPECT_TRUE(
        logged("[DEBUG] Output: Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,"
               "status=enforcing"));
}

TEST_F(LogConverterOutputTest, NetctlLineBecomesOutputLine) {
    EXPECT_EQ(
        "Nov 15 13:10:05,container_id=3f2a9c,Event=netctl,path=/usr/bin/curl,status=permissive",
        converter().convertToOutputFormat(converter().parseLine(NETCTL_LINE)));
}

TEST_F(LogConverterOutputTest, ExectlRecordUsesItsWord) {
    EXPECT_EQ("Nov 15 13:10:05,container_id=ex1,Event=exectl,path=/bin/sh,status=permissive",
              converter().convertToOutputFormat(
                  makeRecord("ex1", "/bin/sh", EventType::EXECTL, StatusType::PERMISSIVE)));
}

TEST_F(LogConverterOutputTest, OutputTraceIsSilentWithDebugOff) {
    LogConverter::setDebugMode(false);
    EXPECT_NE("", converter().convertToOutputFormat(makeRecord("quiet1", "/a")));
    EXPECT_FALSE(containsSubstring(diagnostics(), "Output: "));
}

TEST_F(LogConverterOutputTest, InvalidRecordGivesEmptyTextAndLeavesCache) {
    LogConverter::ParseResult invalid = makeRecord("inv1", "/etc/passwd");
    invalid.valid = false;

    EXPECT_EQ("", converter().convertToOutputFormat(invalid));
    EXPECT_EQ("Nov 15 13:10:05,container_id=inv1,Event=filectl,path=/etc/passwd,status=enforcing",
              converter().convertToOutputFormat(makeRecord("inv1", "/etc/passwd")));
}

TEST_F(LogConverterOutputTest, RepeatedRecordIsWrittenOnce) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult record = makeRecord("3f2a9c", "/etc/passwd");

    EXPECT_EQ("Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing",
              converter().convertToOutputFormat(record));
    EXPECT_EQ("", converter().convertToOutputFormat(record));
    EXPECT_TRUE(logged("[DEBUG] Skipping duplicate log entry: 3f2a9c|/etc/passwd|Nov 15 13:10:05"));
}

TEST_F(LogConverterOutputTest, DuplicateIsReportedEvenWithConverterDebugOff) {
    LogConverter::setDebugMode(false);
    const LogConverter::ParseResult record = makeRecord("dup2", "/etc/shadow");

    converter().convertToOutputFormat(record);
    EXPECT_EQ("", converter().convertToOutputFormat(record));
    EXPECT_TRUE(logged("[DEBUG] Skipping duplicate log entry: dup2|/etc/shadow|Nov 15 13:10:05"));
}

TEST_F(LogConverterOutputTest, DuplicateReportIsDroppedByLoggerWithDebugOff) {
    testing_support::initLogger(logPath_, false);
    LogConverter::setDebugMode(false);
    const LogConverter::ParseResult record = makeRecord("dup3", "/etc/shadow");

    converter().convertToOutputFormat(record);
    EXPECT_EQ("", converter().convertToOutputFormat(record));
    EXPECT_FALSE(containsSubstring(diagnostics(), "Skipping duplicate log entry"));
}

TEST_F(LogConverterOutputTest, RecordsDifferingOnlyInStatusAreWrittenOnce) {
    EXPECT_EQ("Nov 15 13:10:05,container_id=dup4,Event=filectl,path=/a,status=enforcing",
              converter().convertToOutputFormat(
                  makeRecord("dup4", "/a", EventType::FILECTL, StatusType::ENFORCING)));
    EXPECT_EQ("", converter().convertToOutputFormat(
                      makeRecord("dup4", "/a", EventType::FILECTL, StatusType::PERMISSIVE)));
}

TEST_F(LogConverterOutputTest, RecordsDifferingOnlyInEventAreWrittenOnce) {
    EXPECT_EQ("Nov 15 13:10:05,container_id=dup5,Event=exectl,path=/a,status=enforcing",
              converter().convertToOutputFormat(
                  makeRecord("dup5", "/a", EventType::EXECTL, StatusType::ENFORCING)));
    EXPECT_EQ("", converter().convertToOutputFormat(
                      makeRecord("dup5", "/a", EventType::FILECTL, StatusType::ENFORCING)));
}

TEST_F(LogConverterOutputTest, DifferentSecondContainerOrPathIsNotDuplicate) {
    EXPECT_NE("", converter().convertToOutputFormat(makeRecord("dup6", "/a")));
    EXPECT_NE("", converter().convertToOutputFormat(makeRecord("dup7", "/a")));
    EXPECT_NE("", converter().convertToOutputFormat(makeRecord("dup6", "/b")));
    EXPECT_NE("", converter().convertToOutputFormat(makeRecord(
                      "dup6", "/a", EventType::FILECTL, StatusType::ENFORCING, "Nov 15 13:10:06")));
}

TEST_F(LogConverterOutputTest, CacheIsClearedByTheThousandAndFirstKey) {
    LogConverter::setDebugMode(false);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_NE("",
                  converter().convertToOutputFormat(makeRecord("fill" + std::to_string(i), "/a")))
            << i;
    }
    // All thousand keys are still held.
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ("",
                  converter().convertToOutputFormat(makeRecord("fill" + std::to_string(i), "/a")))
            << i;
    }
    EXPECT_FALSE(containsSubstring(diagnostics(), "Cleared duplicate cache"));

    EXPECT_EQ("Nov 15 13:10:05,container_id=fill1000,Event=filectl,path=/a,status=enforcing",
              converter().convertToOutputFormat(makeRecord("fill1000", "/a")));
    EXPECT_EQ(
        1, countSubstring(diagnostics(), "[DEBUG] Cleared duplicate cache (size limit reached)"));

    EXPECT_EQ("Nov 15 13:10:05,container_id=fill0,Event=filectl,path=/a,status=enforcing",
              converter().convertToOutputFormat(makeRecord("fill0", "/a")));
    EXPECT_EQ("Nov 15 13:10:05,container_id=fill1000,Event=filectl,path=/a,status=enforcing",
              converter().convertToOutputFormat(makeRecord("fill1000", "/a")));
}

TEST_F(LogConverterOutputTest, BadEventValueIsNotWrittenButKeyIsCached) {
    EXPECT_EQ("", converter().convertToOutputFormat(
                      makeRecord("bad1", "/a", static_cast<EventType>(7), StatusType::ENFORCING)));
    EXPECT_EQ("", converter().convertToOutputFormat(makeRecord("bad1", "/a")));
}

TEST_F(LogConverterOutputTest, UnknownEventValueIsNotWrittenButKeyIsCached) {
    EXPECT_EQ("", converter().convertToOutputFormat(
                      makeRecord("bad2", "/a", EventType::UNKNOWN, StatusType::ENFORCING)));
    EXPECT_EQ("", converter().convertToOutputFormat(makeRecord("bad2", "/a")));
}

TEST_F(LogConverterOutputTest, BadStatusValueIsNotWrittenButKeyIsCached) {
    EXPECT_EQ("", converter().convertToOutputFormat(
                      makeRecord("bad3", "/a", EventType::FILECTL, static_cast<StatusType>(-1))));
    EXPECT_EQ("", converter().convertToOutputFormat(makeRecord("bad3", "/a")));
}

TEST_F(LogConverterOutputTest, CommaAndEqualsAreWrittenUnescaped) {
    EXPECT_EQ("Nov 15 13:10:05,container_id=a,b=c,Event=filectl,path=/x=y,z,status=enforcing",
              converter().convertToOutputFormat(makeRecord("a,b=c", "/x=y,z")));
}

TEST_F(LogConverterOutputTest, KeyJoinsContainerPathAndTime) {
    EXPECT_EQ("3f2a9c|/etc/passwd|Nov 15 13:10:05",
              converter().generateLogHash(makeRecord("3f2a9c", "/etc/passwd")));
}

TEST_F(LogConverterOutputTest, KeyTakesAtMostSixteenCharactersOfTime) {
    EXPECT_EQ("c|/p|0123456789abcdef",
              converter().generateLogHash(makeRecord(
                  "c", "/p", EventType::FILECTL, StatusType::ENFORCING, "0123456789abcdefXYZ")));
    EXPECT_EQ("c|/p|short", converter().generateLogHash(makeRecord(
                                "c", "/p", EventType::FILECTL, StatusType::ENFORCING, "short")));
}

TEST_F(LogConverterOutputTest, KeyOfInvalidRecordIsEmpty) {
    LogConverter::ParseResult record = makeRecord("c", "/p");
    record.valid = false;
    EXPECT_EQ("", converter().generateLogHash(record));
}

// ---------------------------------------------------------------------------
// Hostile input

TEST_F(LogConverterOutputTest, NulByteInsidePathIsKept) {
    const std::string line =
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=/a\0b "
        "container_id=nul1"s;
    const LogConverter::ParseResult result = converter().parseLine(line);

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("/a\0b"s, result.path);
    EXPECT_EQ("Nov 15 13:10:05,container_id=nul1,Event=filectl,path=/a\0b,status=enforcing"s,
              converter().convertToOutputFormat(result));
}

TEST_F(LogConverterTest, NulByteBeforeTypeDoesNotHideIt) {
    EXPECT_TRUE(converter().shouldProcess("\0\0type=QIRN_AVC msg=x"s));
}

TEST_F(LogConverterTest, NulByteInTypeValueRejectsLine) {
    EXPECT_FALSE(converter().shouldProcess("type=QIRN_AVC\0 msg=x"s));
}

TEST_F(LogConverterTest, NulByteEndsStampDigits) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(42\0"
        "99:1): avc:  denied  { write } name=/a container_id=nul2"s);

    EXPECT_TRUE(result.valid);
    EXPECT_EQ("Jan 01 00:00:42", result.timestamp);
}

TEST_F(LogConverterOutputTest, InvalidUtf8PassesThroughUnchanged) {
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=/tmp/\xc3\x28\xff "
        "container_id=\xfe\xff");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ(
        "Nov 15 13:10:05,container_id=\xfe\xff,Event=filectl,path=/tmp/\xc3\x28\xff,"
        "status=enforcing",
        converter().convertToOutputFormat(result));
}

TEST_F(LogConverterTest, InvalidUtf8InOperationIsLeftAsIs) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { WRITE\xff\x80 } name=/a "
        "container_id=utf2");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ(EventType::FILECTL, result.eventType);
    EXPECT_TRUE(logged("[DEBUG] Operation: write\xff\x80"));
}

TEST_F(LogConverterTest, InvalidUtf8StatusWordIsUnexpected) {
    EXPECT_EQ(StatusType::UNKNOWN, converter().determineStatusType("avc: \xff\xfe x"));
    EXPECT_TRUE(
        logged("[ERROR] Unexpected status word (neither denied nor detect): \xff\xfe in line: avc: "
               "\xff\xfe x"));
}

TEST_F(LogConverterOutputTest, OneMebibytePathIsKeptWhole) {
    const std::string path = "/" + std::string(1 << 20, 'a');
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=" + path +
        " container_id=big1");

    EXPECT_TRUE(result.valid);
    EXPECT_EQ(path, result.path);
    EXPECT_EQ("Nov 15 13:10:05,container_id=big1,Event=filectl,path=" + path + ",status=enforcing",
              converter().convertToOutputFormat(result));
}

TEST_F(LogConverterTest, OneMebibyteLineOfOtherTypeIsRejected) {
    const std::string line = "type=SYSCALL " + std::string(1 << 20, 'x');
    EXPECT_FALSE(converter().parseLine(line).valid);
}

TEST_F(LogConverterTest, OneMebibyteLineWithoutTypeIsRejected) {
    EXPECT_FALSE(converter().parseLine(std::string(1 << 20, 't')).valid);
}

TEST_F(LogConverterTest, OneMebibyteLineWithTypeAtItsEndIsRejected) {
    EXPECT_FALSE(converter().parseLine(std::string(1 << 20, ' ') + "type=").valid);
}

TEST_F(LogConverterTest, UnterminatedQuotedContainerIdIsRejected) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=/a "
        "container_id=\"abc def");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] container_id field not found in log, skipping"));
}

TEST_F(LogConverterTest, UnterminatedQuotedNameHasNoPath) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } container_id=q1 "
        "name=\"/tmp/a b");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No path found"));
}

TEST_F(LogConverterTest, QuoteAsLastCharacterOfNameHasNoPath) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } container_id=q2 "
        "name=\"");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No path found"));
}

TEST_F(LogConverterTest, UnclosedBraceGivesEmptyOperation) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write name=/a "
        "container_id=br1");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Unknown event type: type=QIRN_AVC, operation="));
}

TEST_F(LogConverterTest, ClosingBraceBeforeOpeningGivesEmptyOperation) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  } write { name=/a "
        "container_id=br2");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Unknown event type: type=QIRN_AVC, operation="));
}

TEST_F(LogConverterTest, NestedBracesEndAtFirstClosingBrace) {
    LogConverter::setDebugMode(true);
    converter().parseLine(
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { { write } } name=/a "
        "container_id=br3");

    EXPECT_TRUE(logged("[DEBUG] Operation: {write"));
}

TEST_F(LogConverterTest, TypeAtVeryEndIsNotProcessedByParser) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result =
        converter().parseLine("msg=audit(1731676205.123:1): container_id=e1 type=");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] Line should not be processed"));
}

TEST_F(LogConverterTest, ProcPathWithNothingAfterEqualsHasNoPath) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result = converter().parseLine(
        "type=QIRN_NETCTL msg=audit(1731676205.500:2): avc:  detected  container_id=e2 "
        "proc_path=");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] No path found"));
}

TEST_F(LogConverterTest, EveryKeyEmptyIsRejectedAtContainer) {
    LogConverter::setDebugMode(true);
    const LogConverter::ParseResult result =
        converter().parseLine("type=QIRN_AVC container_id= name= proc_path= msg=audit(");

    EXPECT_FALSE(result.valid);
    EXPECT_TRUE(logged("[DEBUG] container_id field not found in log, skipping"));
}

TEST_F(LogConverterTest, EmptyLineIsRejected) {
    EXPECT_FALSE(converter().parseLine("").valid);
    EXPECT_FALSE(converter().shouldProcess(""));
    EXPECT_EQ("", converter().extractField("", "container_id"));
    EXPECT_EQ(StatusType::UNKNOWN, converter().determineStatusType(""));
}

}  // namespace

TEST(LogConverterStampTest, StampGivesTextSecondsAndSerial) {
    const LogConverter::AuditStamp stamp = LogConverter::findAuditStamp(AVC_LINE);
    EXPECT_TRUE(stamp.found);
    EXPECT_EQ(stamp.text, "1731676205.123");
    EXPECT_TRUE(stamp.hasSeconds);
    EXPECT_EQ(stamp.seconds, 1731676205);
    EXPECT_TRUE(stamp.hasSerial);
    EXPECT_EQ(stamp.serial, 4567u);
}

TEST(LogConverterStampTest, MillisecondStampGivesSeconds) {
    const LogConverter::AuditStamp stamp =
        LogConverter::findAuditStamp("msg=audit(1731676205123:9)");
    EXPECT_EQ(stamp.text, "1731676205123");
    EXPECT_EQ(stamp.seconds, 1731676205);
    EXPECT_EQ(stamp.serial, 9u);
}

TEST(LogConverterStampTest, StampWithoutColonEndsAtParenthesisAndHasNoSerial) {
    const LogConverter::AuditStamp stamp = LogConverter::findAuditStamp("audit(1731676205) x");
    EXPECT_EQ(stamp.text, "1731676205");
    EXPECT_EQ(stamp.seconds, 1731676205);
    EXPECT_FALSE(stamp.hasSerial);
}

TEST(LogConverterStampTest, StampRunsToLaterColonAndSerialNeedsDigits) {
    const LogConverter::AuditStamp stamp =
        LogConverter::findAuditStamp("audit(1731676205) avc:  denied");
    EXPECT_EQ(stamp.text, "1731676205) avc");
    EXPECT_EQ(stamp.seconds, 1731676205);
    EXPECT_FALSE(stamp.hasSerial);
}

TEST(LogConverterStampTest, MissingOrEmptyStampIsNotFound) {
    EXPECT_FALSE(LogConverter::findAuditStamp("no stamp here").found);
    EXPECT_FALSE(LogConverter::findAuditStamp("audit(:1)").found);
    EXPECT_FALSE(LogConverter::findAuditStamp("audit()").found);
    EXPECT_FALSE(LogConverter::findAuditStamp("x audit(").found);
}

TEST(LogConverterStampTest, UnreadableStampIsFoundWithoutSeconds) {
    const LogConverter::AuditStamp stamp = LogConverter::findAuditStamp("audit(abc:1)");
    EXPECT_TRUE(stamp.found);
    EXPECT_EQ(stamp.text, "abc");
    EXPECT_FALSE(stamp.hasSeconds);
    EXPECT_TRUE(stamp.hasSerial);
    EXPECT_EQ(stamp.serial, 1u);
}

// ---------------------------------------------------------------------------
// Reasons: why a line gives no event, from the step that decided it

namespace {

using Stop = LogConverter::Stop;

struct ReasonCase {
    std::string line;
    Stop reason;
};

const std::string HEAD = "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } ";

std::vector<ReasonCase> reasonCases() {
    return {
        {AVC_LINE, Stop::NONE},
        {NETCTL_LINE, Stop::NONE},
        {SYSCALL_LINE, Stop::OTHER_TYPE},
        {"msg=x subtype=QIRN_AVC2", Stop::OTHER_TYPE},
        {HEAD + "name=/a", Stop::NO_CONTAINER},
        {"type=QIRN_AVC msg=x: avc: denied { write } name=/a container_id=c", Stop::NO_STAMP},
        {"type=QIRN_AVC audit(abc:1): avc: denied { write } name=/a container_id=c",
         Stop::BAD_STAMP},
        {HEAD + "container_id=c", Stop::NO_PATH},
        {"type=QIRN_NETCTL msg=audit(1731676205.1:1): avc: denied container_id=c", Stop::NO_PATH},
        {"type=QIRN_AVC msg=audit(1731676205.1:1): avc: denied { Read } name=/a container_id=c",
         Stop::UNKNOWN_EVENT},
        {"type=QIRN_AVC msg=audit(1731676205.1:1) { write } name=/a container_id=c",
         Stop::UNKNOWN_STATUS},
        {"type=QIRN_AVC msg=audit(1731676205.1:1): avc: Allowed { write } name=/a container_id=c",
         Stop::UNKNOWN_STATUS},
    };
}

}  // namespace

TEST_F(LogConverterTest, EveryRejectionHasTheReasonOfItsStep) {
    for (const ReasonCase& c : reasonCases()) {
        Stop reason = Stop::EXCEPTION;
        const LogConverter::ParseResult result = converter().parseLine(c.line, reason);
        EXPECT_EQ(c.reason, reason) << c.line;
        EXPECT_EQ(reason == Stop::NONE, result.valid) << c.line;
    }
}

TEST_F(LogConverterTest, TraceChangesNeitherReasonNorWhatTheRejectionSaw) {
    for (const ReasonCase& c : reasonCases()) {
        Stop quiet = Stop::NONE;
        LogConverter::Rejection quietSaw;
        const LogConverter::ParseResult quietResult =
            converter().parseLine(c.line, quiet, &quietSaw);
        LogConverter::setDebugMode(true);
        Stop traced = Stop::NONE;
        LogConverter::Rejection tracedSaw;
        const LogConverter::ParseResult tracedResult =
            converter().parseLine(c.line, traced, &tracedSaw);
        LogConverter::setDebugMode(false);
        EXPECT_EQ(quiet, traced) << c.line;
        EXPECT_EQ(quietResult.valid, tracedResult.valid) << c.line;
        EXPECT_EQ(quietSaw.type, tracedSaw.type) << c.line;
        EXPECT_EQ(quietSaw.operation, tracedSaw.operation) << c.line;
        EXPECT_EQ(quietSaw.statusMarker, tracedSaw.statusMarker) << c.line;
        EXPECT_EQ(quietSaw.statusWord, tracedSaw.statusWord) << c.line;
    }
}

TEST_F(LogConverterTest, RejectionTellsWhatTheRejectingStepSaw) {
    // The type the rejection names points into the line parsed.
    const std::vector<ReasonCase> cases = reasonCases();
    Stop reason = Stop::NONE;
    LogConverter::Rejection saw;
    converter().parseLine(cases[8].line, reason, &saw);
    EXPECT_EQ(Stop::NO_PATH, reason);
    EXPECT_EQ("QIRN_NETCTL", saw.type);

    converter().parseLine(cases[9].line, reason, &saw);
    EXPECT_EQ(Stop::UNKNOWN_EVENT, reason);
    EXPECT_EQ("QIRN_AVC", saw.type);
    EXPECT_EQ("read", saw.operation);

    converter().parseLine(cases[10].line, reason, &saw);
    EXPECT_EQ(Stop::UNKNOWN_STATUS, reason);
    EXPECT_FALSE(saw.statusMarker);

    converter().parseLine(cases[11].line, reason, &saw);
    EXPECT_EQ(Stop::UNKNOWN_STATUS, reason);
    EXPECT_TRUE(saw.statusMarker);
    EXPECT_EQ("allowed", saw.statusWord);
}

TEST_F(LogConverterOutputTest, OutputSaysWhyItIsEmpty) {
    Stop reason = Stop::NONE;
    LogConverter::ParseResult invalid = makeRecord("r1", "/r");
    invalid.valid = false;
    EXPECT_EQ("", converter().convertToOutputFormat(invalid, reason));
    EXPECT_EQ(Stop::NOT_VALID, reason);

    EXPECT_NE("", converter().convertToOutputFormat(makeRecord("r1", "/r"), reason));
    EXPECT_EQ(Stop::NONE, reason);
    EXPECT_EQ("", converter().convertToOutputFormat(makeRecord("r1", "/r"), reason));
    EXPECT_EQ(Stop::DUPLICATE, reason);

    EXPECT_EQ("", converter().convertToOutputFormat(
                      makeRecord("r2", "/r", static_cast<EventType>(7)), reason));
    EXPECT_EQ(Stop::NO_WORD, reason);
    EXPECT_EQ("",
              converter().convertToOutputFormat(
                  makeRecord("r3", "/r", EventType::FILECTL, static_cast<StatusType>(0)), reason));
    EXPECT_EQ(Stop::NO_WORD, reason);
}
