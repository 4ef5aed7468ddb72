// The summary a person reads at the end of a run.

#include "convert/Summary.h"

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

TEST(SummaryTest, PresentEventIsMovedFromEventsToItsReason) {
    Summary summary;
    summary.lineRead();
    summary.count(LineJudge::Reason::EVENT);
    summary.uncount(LineJudge::Reason::EVENT);
    summary.count(LineJudge::Reason::PRESENT);
    EXPECT_EQ(summary.events(), 0u);
    EXPECT_EQ(summary.countOf(LineJudge::Reason::PRESENT), 1u);
}
