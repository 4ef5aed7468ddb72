// Counts every heap allocation of the test program by replacing the global
// allocation functions, to prove that a line of another type costs none. The
// same hook can fail one chosen allocation, the only way to make the parser
// meet a standard exception.

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "converter/ConverterFixture.h"
#include "converter/LogConverter.h"
#include "logging/Logger.h"
#include "support/AuditLines.h"
#include "support/ScopedTimeZone.h"
#include "support/TestSupport.h"
#include "writer/LogWriter.h"

namespace {

std::atomic<std::size_t> allocationCount{0};
// Bytes in blocks handed out by operator new and not yet given back.
std::atomic<long long> liveBytes{0};
// When positive, the allocation that brings it to zero fails.
std::atomic<long> failingAllocation{0};

}  // namespace

// The array and nothrow forms of the library forward to these. Kept out of
// line: inlined, the free() inside would look mismatched with the new.
[[gnu::noinline]] void* operator new(std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (failingAllocation.load(std::memory_order_relaxed) > 0 &&
        failingAllocation.fetch_sub(1, std::memory_order_relaxed) == 1) {
        throw std::bad_alloc();
    }
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        liveBytes.fetch_add(static_cast<long long>(malloc_usable_size(block)),
                            std::memory_order_relaxed);
        return block;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* block) noexcept {
    if (block != nullptr) {
        liveBytes.fetch_sub(static_cast<long long>(malloc_usable_size(block)),
                            std::memory_order_relaxed);
    }
    std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    operator delete(block);
}

// The array forms too: the library's own forward here, but a sanitizer's
// runtime brings array forms that would not.
[[gnu::noinline]] void* operator new[](std::size_t size) { return operator new(size); }

[[gnu::noinline]] void operator delete[](void* block) noexcept { operator delete(block); }

[[gnu::noinline]] void operator delete[](void* block, std::size_t) noexcept {
    operator delete(block);
}

// The over-aligned forms, which memory resources of the library use, are
// counted alike.
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    void* block = nullptr;
    const std::size_t wanted = std::max(static_cast<std::size_t>(alignment), sizeof(void*));
    if (posix_memalign(&block, wanted, size == 0 ? 1 : size) != 0) {
        throw std::bad_alloc();
    }
    liveBytes.fetch_add(static_cast<long long>(malloc_usable_size(block)),
                        std::memory_order_relaxed);
    return block;
}

[[gnu::noinline]] void operator delete(void* block, std::align_val_t) noexcept {
    operator delete(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    operator delete(block);
}

namespace {

constexpr int ROUNDS = 1000;

const std::string SYSCALL_LINE = testing_support::syscallLine(1731676205);

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

class LogConverterAllocationTest : public ConverterFixture {
protected:
    void TearDown() override {
        failingAllocation.store(0);
        ConverterFixture::TearDown();
    }
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

TEST_F(LogConverterAllocationTest, ExceptionInParseIsLoggedAndRecordReturnedAsItStands) {
    // With the trace off, the path is the first text too long to be stored
    // inline, so it is the parser's first allocation.
    const std::string line =
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } "
        "name=/var/lib/containers/storage/overlay/file container_id=exc1";
    failingAllocation.store(1);

    const LogConverter::ParseResult result = LogConverter::getInstance().parseLine(line);

    EXPECT_EQ(0, failingAllocation.load());
    EXPECT_FALSE(result.valid);
    EXPECT_EQ("exc1", result.containerId);
    EXPECT_TRUE(testing_support::containsLine(diagnostics(),
                                              "[ERROR] Exception in parseLine: std::bad_alloc"));
}

TEST_F(LogConverterAllocationTest, ExceptionInParseIsReasonExceptionWithItsMessage) {
    const std::string line =
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } "
        "name=/var/lib/containers/storage/overlay/file container_id=exc2";
    LogConverter::Stop reason = LogConverter::Stop::NONE;
    LogConverter::Rejection saw;
    failingAllocation.store(1);

    const LogConverter::ParseResult result =
        LogConverter::getInstance().parseLine(line, reason, &saw);

    EXPECT_EQ(0, failingAllocation.load());
    EXPECT_FALSE(result.valid);
    EXPECT_EQ(LogConverter::Stop::EXCEPTION, reason);
    EXPECT_EQ("std::bad_alloc", saw.error);
}

TEST_F(LogConverterAllocationTest, ExceptionAfterSuccessStillReturnsValidRecord) {
    LogConverter::setDebugMode(true);
    const std::string line =
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } name=/a "
        "container_id=exc2";
    LogConverter& converter = LogConverter::getInstance();
    converter.parseLine(line);
    const std::size_t before = allocationCount.load();
    converter.parseLine(line);
    const std::size_t perParse = allocationCount.load() - before;
    ASSERT_LT(0u, perParse);
    // The last allocation of a traced parse is made for the success message,
    // after the record has been marked valid.
    failingAllocation.store(static_cast<long>(perParse));

    const LogConverter::ParseResult result = converter.parseLine(line);

    EXPECT_EQ(0, failingAllocation.load());
    EXPECT_TRUE(result.valid);
    EXPECT_TRUE(testing_support::containsLine(diagnostics(),
                                              "[ERROR] Exception in parseLine: std::bad_alloc"));
}

TEST_F(LogConverterAllocationTest, OutOfMemoryCannotReachTimeConversion) {
    // The time text is made without the heap, so running out of memory cannot
    // leave the conversion half done: a new second under a zone name longer
    // than any before allocates nothing and converts whole.
    static std::size_t run = 0;
    ++run;
    const std::string zone = std::string(64 * run, 'Q') + "-3";
    const testing_support::ScopedTimeZone east(zone.c_str());
    LogConverter& converter = LogConverter::getInstance();
    const std::string stamp = "1731676206";
    std::string text = "unset";
    bool threw = false;
    const std::size_t before = allocationCount.load();
    failingAllocation.store(1);

    try {
        text = converter.convertTimestamp(stamp);
    } catch (...) {
        threw = true;
    }

    EXPECT_EQ(before, allocationCount.load());
    EXPECT_EQ(1, failingAllocation.load());
    EXPECT_FALSE(threw);
    EXPECT_EQ("Nov 15 16:10:06", text);
    EXPECT_EQ("Nov 15 16:10:06", converter.convertTimestamp(stamp));
}

// Lines of distinct new events: the container id and the path are both
// longer than what a string keeps inline.
std::vector<std::string> distinctEvents(const std::string& tag, int count) {
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        lines.push_back(
            "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } for "
            "pid=1 comm=\"bash\" name=\"/var/lib/containers/" +
            tag + "/file-" + std::to_string(i) + "\" container_id=3f2a9c7b1e04d5a6 tclass=file");
    }
    return lines;
}

// Events and repeats of them, parsed, converted and written as the line
// callback does, with the diagnostic log's debug level off as in service.
class EventAllocationTest : public LogConverterAllocationTest {
protected:
    void SetUp() override {
        LogConverterAllocationTest::SetUp();
        writer_ = std::make_unique<LogWriter>(dir_.file("events.log"));
        emptyCache();
        Logger::getInstance().setDebugMode(false);
    }

    // Fills the duplicate cache until it is emptied, watched through its
    // message, so that the lines counted afterwards never meet a clearing.
    void emptyCache() {
        const std::vector<std::string> filler =
            distinctEvents("filler", static_cast<int>(LogConverter::MAX_CACHE_SIZE) + 1);
        const int clearedBefore = clearings();
        for (const std::string& line : filler) {
            handle(line);
            if (clearings() > clearedBefore) {
                return;
            }
        }
        FAIL() << "the duplicate cache was never emptied";
    }

    int clearings() const {
        return testing_support::countSubstring(diagnostics(),
                                               "Cleared duplicate cache (size limit reached)");
    }

    void handle(const std::string& line) {
        LogConverter& converter = LogConverter::getInstance();
        const LogConverter::ParseResult result = converter.parseLine(line);
        if (!result.valid) {
            return;
        }
        const std::string output = converter.convertToOutputFormat(result);
        if (!output.empty()) {
            writer_->writeLine(output);
        }
    }

    std::size_t allocationsFor(const std::vector<std::string>& lines) {
        const std::size_t before = allocationCount.load();
        for (const std::string& line : lines) {
            handle(line);
        }
        return allocationCount.load() - before;
    }

    std::unique_ptr<LogWriter> writer_;
};

TEST_F(EventAllocationTest, NewEventAllocatesThreeTimes) {
    // Container id and path (the record's strings, both too long to be kept
    // inline) and the output line. The cache's key and node come from memory
    // it keeps across clearings, the write allocates nothing.
    const std::vector<std::string> lines = distinctEvents("new", ROUNDS / 2);
    EXPECT_EQ(3u * lines.size(), allocationsFor(lines));
}

TEST_F(EventAllocationTest, DuplicateAllocatesThreeTimes) {
    // Container id, path, and the duplicate message that is composed
    // whatever the log level; looking the key up allocates nothing.
    const std::vector<std::string> lines = distinctEvents("repeated", ROUNDS / 2);
    allocationsFor(lines);
    EXPECT_EQ(3u * lines.size(), allocationsFor(lines));
}

TEST_F(EventAllocationTest, CacheCyclesReuseTheirMemory) {
    // Once a full cache has been emptied, filling it again up to and through
    // the next clearing takes no memory for keys, nodes and buckets beyond
    // what it kept: three per event, and the clearing's message.
    const std::vector<std::string> lines =
        distinctEvents("cycle", static_cast<int>(LogConverter::MAX_CACHE_SIZE) + 1);
    EXPECT_EQ(3u * lines.size() + 1, allocationsFor(lines));
}

TEST_F(EventAllocationTest, VeryLongPathIsNotHeldTwice) {
    // The cache keeps the key of a new event, which here holds a path of a
    // mebibyte; the text the key was composed in gives that room back.
    const std::string path = "/var/lib/" + std::string(1 << 20, 'p');
    const std::string line =
        "type=QIRN_AVC msg=audit(1731676205.123:1): avc:  denied  { write } "
        "for pid=1 name=" +
        path + " container_id=3f2a9c7b1e04d5a6 tclass=file";
    const long long before = liveBytes.load();
    handle(line);
    const long long kept = liveBytes.load() - before;
    // The cache's copy, less the few bytes of room given back with it.
    EXPECT_GT(kept, static_cast<long long>(path.size() - 4096));
    EXPECT_LT(kept, static_cast<long long>(path.size() + path.size() / 2));
}

}  // namespace
