// The golden corpus: a line for every reason code that input can produce and
// events of every kind and status, checked against the expected explanation,
// summary and exit status of the built command.

#include <gtest/gtest.h>

#include <string>

#include "support/CommandRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

const std::string GOLDEN = std::string(QLC_SOURCE_DIR) + "/tests/companion/golden/";
constexpr std::size_t TOO_LONG_SIZE = 11u << 20;
// After every record of the corpus but one, which is left out for its time.
const std::string UNTIL = "1731676300";

// The corpus, then a line longer than any the command holds, then a last
// line without its newline.
std::string goldenInput(const TempDir& dir) {
    const std::string path = dir.file("input.log");
    writeFile(path, readFile(GOLDEN + "corpus.log") + std::string(TOO_LONG_SIZE, 'y') + "\n" +
                        "type=QIRN_AVC msg=audit(1731676260.000:4610): avc:  denied  { interpret "
                        "} for pid=9 name=/usr/bin/python3 container_id=9c0d55");
    return path;
}

}  // namespace

TEST(GoldenCorpusTest, ExplainAllGivesExpectedRowsSummaryAndStatus) {
    TempDir dir;
    const CommandResult result = runConvert({"--explain=all", "--until", UNTIL, "--settle", "0",
                                             "--reconcile", GOLDEN + "present-events.log", "-"},
                                            goldenInput(dir));
    EXPECT_EQ(result.stdoutText, readFile(GOLDEN + "expected-explain.tsv"));
    EXPECT_EQ(result.stderrText, readFile(GOLDEN + "expected-summary.txt"));
    EXPECT_EQ(result.exitCode, 0);
}

TEST(GoldenCorpusTest, StrictExitsWithThreeOnSuspiciousLines) {
    TempDir dir;
    const CommandResult result = runConvert({"--strict", "--quiet", "-"}, goldenInput(dir));
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.stderrText, "");
}

TEST(GoldenCorpusTest, PlainConversionWritesTheEventLines) {
    TempDir dir;
    const CommandResult result = runConvert({"--quiet", "-"}, goldenInput(dir));
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(
        result.stdoutText,
        "Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=/etc/passwd,status=enforcing\n"
        "Nov 15 13:10:09,container_id=3f2a9c,Event=exectl,path=/usr/bin/nc,status=permissive\n"
        "Nov 15 13:10:29,container_id=3f2a9c,Event=netctl,path=/usr/bin/curl,status=permissive\n"
        "Nov 15 13:10:33,container_id=9c0d55,Event=netctl,path=/usr/bin/wget,status=enforcing\n"
        "Nov 15 13:13:20,container_id=7b1e04,Event=filectl,path=/var/tmp/late,status=enforcing\n"
        "Nov 15 13:10:50,container_id=7b1e04,Event=filectl,path=/var/lib/app/db,status=enforcing\n"
        "Nov 15 13:10:51,container_id=7b1e04,Event=filectl,path=/tmp/a\tb,status=enforcing\n"
        "Nov 15 13:10:52,container_id=7b1e04,Event=filectl,path=/tmp/cr\r,status=permissive\n"
        "Nov 15 "
        "13:11:00,container_id=9c0d55,Event=exectl,path=/usr/bin/python3,status=enforcing\n");
}

// Without explanations most lines are settled before they are copied; the
// counts must not notice.
TEST(GoldenCorpusTest, PlainConversionCountsEveryReasonAsExplainDoes) {
    TempDir dir;
    const CommandResult result = runConvert(
        {"--until", UNTIL, "--settle", "0", "--reconcile", GOLDEN + "present-events.log", "-"},
        goldenInput(dir));
    EXPECT_EQ(result.stderrText, readFile(GOLDEN + "expected-summary.txt"));
    EXPECT_EQ(result.exitCode, 0);
}
