// The one sleep of the service: a signal arriving in the middle of it does not
// shorten it. Only a lower bound is asserted; how much longer it takes depends
// on the machine.

#include "common/Sleep.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <csignal>

namespace {

std::atomic<int> alarms{0};

void countAlarm(int) { alarms.fetch_add(1); }

// Delivers SIGALRM to a handler that only counts, every 50 ms from 50 ms on,
// without SA_RESTART, so that each one interrupts the sleep with EINTR.
class SleepTest : public ::testing::Test {
protected:
    void SetUp() override {
        alarms.store(0);
        struct sigaction action {};
        action.sa_handler = countAlarm;
        sigemptyset(&action.sa_mask);
        ASSERT_EQ(0, sigaction(SIGALRM, &action, &previous_));
        const itimerval every50ms{{0, 50000}, {0, 50000}};
        ASSERT_EQ(0, setitimer(ITIMER_REAL, &every50ms, nullptr));
    }
    void TearDown() override {
        const itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        sigaction(SIGALRM, &previous_, nullptr);
    }

    struct sigaction previous_ {};
};

TEST_F(SleepTest, SignalsInTheMiddleOfASleepDoNotShortenIt) {
    // Below one second and of whole seconds: the two fields of the request.
    for (const std::chrono::nanoseconds length :
         {std::chrono::nanoseconds(std::chrono::milliseconds(400)),
          std::chrono::nanoseconds(std::chrono::seconds(1))}) {
        const int alarmsBefore = alarms.load();
        const auto start = std::chrono::steady_clock::now();

        sleepResuming(length);

        const auto elapsed = std::chrono::steady_clock::now() - start;
        EXPECT_GE(elapsed, length);
        EXPECT_LT(alarmsBefore, alarms.load());
    }
}

}  // namespace
