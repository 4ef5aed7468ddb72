// The one reason that input alone cannot provoke: a standard exception while
// a line is parsed. A failing allocation is the way to make the parser meet
// one, so this program replaces the global allocation functions.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "companion/LineJudge.h"

namespace {

// When positive, the allocation that brings it to zero fails.
std::atomic<long> failingAllocation{0};

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (failingAllocation.load(std::memory_order_relaxed) > 0 &&
        failingAllocation.fetch_sub(1, std::memory_order_relaxed) == 1) {
        throw std::bad_alloc();
    }
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

TEST(LineJudgeAllocationTest, FailedAllocationWhileParsingIsReasonException) {
    LineJudge judge(true);
    // Long enough that the container id cannot stay inside the string object.
    const std::string line =
        "type=QIRN_AVC msg=audit(1731676205.123:4567): avc:  denied  { write } for pid=1 "
        "name=\"/etc/passwd\" container_id=container-id-long-enough-to-need-the-heap";
    LineJudge::Verdict verdict;
    failingAllocation = 1;
    judge.parse(line, verdict);
    failingAllocation = 0;
    EXPECT_EQ(verdict.reason, LineJudge::Reason::EXCEPTION);
    EXPECT_EQ(verdict.detail, "std::bad_alloc");
    EXPECT_TRUE(judge.takeStrayLines().empty());
}

TEST(LineJudgeAllocationTest, SameLineWithoutFailureIsAnEvent) {
    LineJudge judge(true);
    // A second of its own on every run, so that a repeated run (the duplicate
    // cache is process-wide) still meets a new event.
    static int run = 0;
    const std::string line = "type=QIRN_AVC msg=audit(" + std::to_string(1731676206 + run++) +
                             ".123:4567): avc:  denied  { write } for pid=1 "
                             "name=\"/etc/passwd\" "
                             "container_id=container-id-long-enough-to-need-the-heap";
    LineJudge::Verdict verdict;
    judge.parse(line, verdict);
    ASSERT_EQ(verdict.reason, LineJudge::Reason::EVENT);
    judge.emit(verdict);
    EXPECT_EQ(verdict.reason, LineJudge::Reason::EVENT);
}
