// Counts every heap allocation of the test program by replacing the global
// allocation functions, to prove that a line of another type costs none.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>

#include "converter/LogConverter.h"
#include "support/TestSupport.h"

namespace {

std::atomic<std::size_t> allocationCount{0};

}  // namespace

// The array and nothrow forms of the library forward to these two.
void* operator new(std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

namespace {

constexpr int ROUNDS = 1000;

const std::string SYSCALL_LINE =
    "type=SYSCALL msg=audit(1731676205.123:4566): arch=c000003e syscall=257 success=no exit=-13 "
    "a0=ffffff9c a1=7ffd2a1b3e10 a2=241 a3=1b6 items=1 ppid=1200 pid=1234 auid=1000 uid=0 gid=0 "
    "euid=0 suid=0 fsuid=0 egid=0 sgid=0 fsgid=0 tty=pts0 ses=3 comm=\"bash\" exe=\"/usr/bin/bash\" "
    "key=(null)";

// Allocations made by parsing and converting `line` ROUNDS times, the way the
// line callback does.
std::size_t allocationsFor(const std::string& line) {
    LogConverter& converter = LogConverter::getInstance();
    const std::size_t before = allocationCount.load();
    for (int i = 0; i < ROUNDS; ++i) {
        const LogConverter::ParseResult result = converter.parseLine(line);
        if (result.valid) {
            converter.convertToOutputFormat(result);
        }
    }
    return allocationCount.load() - before;
}

class LogConverterAllocationTest : public ::testing::Test {
protected:
    void SetUp() override {
        testing_support::initLogger(dir_.file("converter.log"), true);
        LogConverter::setDebugMode(false);
        LogConverter::getInstance();
    }

    testing_support::TempDir dir_;
};

TEST_F(LogConverterAllocationTest, CounterSeesAllocations) {
    const std::size_t before = allocationCount.load();
    // Called directly: a new-expression whose result is unused may be elided.
    void* block = ::operator new(64);
    ::operator delete(block);
    EXPECT_EQ(1u, allocationCount.load() - before);
}

TEST_F(LogConverterAllocationTest, LineOfOtherTypeAllocatesNothing) {
    EXPECT_EQ(0u, allocationsFor(SYSCALL_LINE));
}

TEST_F(LogConverterAllocationTest, LineWithoutTypeAllocatesNothing) {
    EXPECT_EQ(0u, allocationsFor("msg=audit(1731676205.123:1): avc:  denied  { write } name=/a"));
}

TEST_F(LogConverterAllocationTest, LineWithTypeAtItsEndAllocatesNothing) {
    EXPECT_EQ(0u, allocationsFor("msg=audit(1731676205.123:1): container_id=x type="));
}

TEST_F(LogConverterAllocationTest, OneMebibyteLineOfOtherTypeAllocatesNothing) {
    const std::string line = "type=SYSCALL " + std::string(1 << 20, 'x');
    EXPECT_EQ(0u, allocationsFor(line));
}

TEST_F(LogConverterAllocationTest, RejectedLineAllocatesWhenTracing) {
    // The converse: with the trace on, the messages are built.
    LogConverter::setDebugMode(true);
    EXPECT_LT(0u, allocationsFor(SYSCALL_LINE));
}

}  // namespace
