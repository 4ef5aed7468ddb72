// The summary a person reads at the end of a run.

#include "companion/Summary.h"

#include <gtest/gtest.h>

TEST(SummaryTest, CountsAreAlignedAndOnlyReasonsThatOccurredAreListed) {
    Summary summary;
    for (int i = 0; i < 1200; ++i) {
        summary.lineRead();
        summary.count(i < 1000
                          ? LineJudge::Reason::TYPE
                          : (i < 1190 ? LineJudge::Reason::EVENT : LineJudge::Reason::DUPLICATE));
    }
    EXPECT_EQ(summary.render(),
              "lines read      1200\n"
              "events written   190\n"
              "lines skipped   1010\n"
              "  type          1000\n"
              "  duplicate       10\n");
}

TEST(SummaryTest, AfterAnOutputFailureOnlyTheLinesThatGotOutCountAsWritten) {
    Summary summary;
    for (int i = 0; i < 5; ++i) {
        summary.lineRead();
        summary.count(LineJudge::Reason::EVENT);
    }
    summary.outputFailed(2);
    EXPECT_EQ(summary.render(),
              "lines read          5\n"
              "events written      2\n"
              "events not written  3\n"
              "lines skipped       0\n"
              "output failed after 2 lines\n");
}
