// The judge's shortcut for lines of another type: the command settles most
// lines on their bytes before copying them, so the shortcut must answer
// exactly what parsing the line would.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "companion/LineJudge.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

const std::string GOLDEN = std::string(QLC_SOURCE_DIR) + "/tests/companion/golden/";

void expectSameAnswer(LineJudge& judge, const std::string& line) {
    LineJudge::Verdict verdict;
    judge.parse(line, verdict);
    EXPECT_EQ(LineJudge::isOtherType(line), verdict.reason == LineJudge::Reason::TYPE) << line;
    judge.takeStrayLines();
}

}  // namespace

TEST(LineJudgeTest, OtherTypeAnswersAsParseDoesOnTheCorpus) {
    LineJudge judge(false);
    const std::string corpus = readFile(GOLDEN + "corpus.log");
    std::size_t start = 0;
    std::size_t lines = 0;
    while (start < corpus.size()) {
        const std::size_t end = corpus.find('\n', start);
        expectSameAnswer(judge, corpus.substr(start, end - start));
        ++lines;
        start = end == std::string::npos ? corpus.size() : end + 1;
    }
    EXPECT_GT(lines, 10u);
}

TEST(LineJudgeTest, OtherTypeAnswersAsParseDoesOnEdgesOfTheType) {
    LineJudge judge(false);
    const std::vector<std::string> lines = {
        "",
        "type=",
        "type=Q",
        "type=QIRN_",
        "type=QIRN_AVC",
        "type=QIRN_NETCTL",
        "type=QIRN_AVC2 msg=x",
        "type=qirn_avc msg=x",
        "type=QIRN_AVC,x",
        "type=QIRN_AVC\tmsg=x",
        "type= QIRN_AVC",
        "msg=x type=QIRN_NETCTL",
        "msg=x type=",
        "subtype=QIRN_AVC type=OTHER",
        "subtype=OTHER type=QIRN_AVC",
        "node=host type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } for "
        "name=\"/a\" container_id=3f2a9c",
        "type=SYSCALL msg=audit(1731676205.100:1): arch=c000003e",
        "\r",
        "type=QIRN_AVC\r",
        std::string("\x80\xff type=QIRN_AVC msg=x"),
    };
    for (const std::string& line : lines) {
        expectSameAnswer(judge, line);
    }
}

TEST(LineJudgeTest, ParseHandledGivesTheVerdictOfParse) {
    LineJudge judge(false);
    const std::string corpus = readFile(GOLDEN + "corpus.log");
    std::size_t start = 0;
    while (start < corpus.size()) {
        const std::size_t end = corpus.find('\n', start);
        const std::string line = corpus.substr(start, end - start);
        start = end == std::string::npos ? corpus.size() : end + 1;
        if (LineJudge::isOtherType(line)) {
            continue;
        }
        LineJudge::Verdict full;
        judge.parse(line, full);
        const std::vector<std::string> fullStray = judge.takeStrayLines();
        LineJudge::Verdict handled;
        handled.detail = "left from an earlier line";
        handled.event = "left from an earlier line";
        judge.parseHandled(line, handled);
        EXPECT_EQ(handled.reason, full.reason) << line;
        EXPECT_EQ(handled.detail, full.detail) << line;
        EXPECT_EQ(handled.event, full.event) << line;
        EXPECT_EQ(handled.record.valid, full.record.valid) << line;
        EXPECT_EQ(judge.takeStrayLines(), fullStray) << line;
    }
}
