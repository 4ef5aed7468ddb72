#include "agent/RetryPolicy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

using std::chrono::milliseconds;

namespace {

Status unavailable() { return Status::failure(Status::Code::UNAVAILABLE, "connection refused"); }

}  // namespace

TEST(RetryPolicyTest, BacksOffFromHalfASecondDoublingToFiveSeconds) {
    RetryPolicy policy;
    std::vector<long> delays;
    for (int i = 0; i < 7; ++i) {
        delays.push_back(static_cast<long>(policy.onFailure(unavailable()).delay.count()));
    }
    EXPECT_EQ((std::vector<long>{500, 1000, 2000, 4000, 5000, 5000, 5000}), delays);
}

// A 30 s outage, each attempt failing at once (the link is down): the store
// is tried at least every 5 s, so once it is back it is used within 5 s, and
// the outage is said once, its end once.
TEST(RetryPolicyTest, AThirtySecondOutageIsTriedAtLeastEveryFiveSecondsAndSaidOnce) {
    RetryPolicy policy;
    milliseconds elapsed{0};
    milliseconds longest{0};
    int said = 0;
    while (elapsed < milliseconds(30000)) {
        const RetryPolicy::Decision decision =
            policy.onFailure(Status::failure(Status::Code::UNAVAILABLE, "lost the store: timeout"));
        said += decision.message.empty() ? 0 : 1;
        longest = std::max(longest, decision.delay);
        elapsed += decision.delay;
    }
    EXPECT_EQ(1, said);
    EXPECT_EQ(milliseconds(5000), longest);
    EXPECT_NE("", policy.onSuccess());
    EXPECT_EQ(milliseconds(500), policy.onFailure(unavailable()).delay);
}

TEST(RetryPolicyTest, SaysOncePerOutageWhatFailedAndOnceThatItRecovered) {
    RetryPolicy policy;
    EXPECT_EQ("store unavailable: connection refused", policy.onFailure(unavailable()).message);
    EXPECT_EQ("", policy.onFailure(unavailable()).message);
    EXPECT_EQ("", policy.onFailure(unavailable()).message);
    EXPECT_EQ("the store answers again after 3 failed calls", policy.onSuccess());
    EXPECT_EQ("", policy.onSuccess());
}

TEST(RetryPolicyTest, RecoveryStartsTheBackoffAgain) {
    RetryPolicy policy;
    policy.onFailure(unavailable());
    policy.onFailure(unavailable());
    policy.onSuccess();
    EXPECT_EQ(milliseconds(500), policy.onFailure(unavailable()).delay);
}

TEST(RetryPolicyTest, AMovedPositionIsReadAgainAtOnce) {
    RetryPolicy policy;
    const RetryPolicy::Decision decision =
        policy.onFailure(Status::failure(Status::Code::CONFLICT, "position moved"));
    EXPECT_EQ(RetryPolicy::Action::REREAD_POSITION, decision.action);
    EXPECT_EQ(milliseconds(0), decision.delay);
    EXPECT_FALSE(policy.inOutage());
}

TEST(RetryPolicyTest, AHeldLeaseIsWaitedForAndSaidOnce) {
    RetryPolicy policy;
    const Status held = Status::failure(Status::Code::BUSY, "lease held by h:1:t until 23:00");
    const RetryPolicy::Decision first = policy.onFailure(held);
    EXPECT_EQ(RetryPolicy::Action::WAIT_FOR_LEASE, first.action);
    EXPECT_EQ("another agent holds this host's lease, waiting: lease held by h:1:t until 23:00",
              first.message);
    EXPECT_EQ("", policy.onFailure(held).message);
    EXPECT_EQ("", policy.onSuccess());
}

TEST(RetryPolicyTest, AHostNotEnrolledIsRetriedSlowly) {
    RetryPolicy policy;
    const RetryPolicy::Decision decision =
        policy.onFailure(Status::failure(Status::Code::REFUSED, "host not enrolled"));
    EXPECT_EQ(RetryPolicy::Action::RETRY_SLOWLY, decision.action);
    EXPECT_EQ(milliseconds(60000), decision.delay);
    EXPECT_EQ("the store refuses this host (not enrolled or retired): host not enrolled",
              decision.message);
}

TEST(RetryPolicyTest, AnotherKindOfFailureIsSaidAgain) {
    RetryPolicy policy;
    policy.onFailure(unavailable());
    EXPECT_NE("", policy.onFailure(Status::failure(Status::Code::REFUSED, "retired")).message);
}
