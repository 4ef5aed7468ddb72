// Cost of one input line through the converter on the three paths that matter
// (a line of another type, a new event, a repeat), beside the least any filter
// could do: one search for "type=" and a comparison of its value.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "converter/LogConverter.h"
#include "support/AuditLines.h"

namespace {

std::atomic<std::size_t> allocationCount{0};

}  // namespace

// The array and nothrow forms of the library forward to these. Kept out of
// line: inlined, the free() inside would look mismatched with the new.
[[gnu::noinline]] void* operator new(std::size_t size) {
    allocationCount.fetch_add(1, std::memory_order_relaxed);
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace {

const std::string SYSCALL_LINE = testing_support::syscallLine(1731676205);
const std::string AVC_LINE = testing_support::avcLine(1731676205, "3f2a9c", "/etc/passwd");

// More distinct lines than the duplicate cache holds, so that every line is
// new again by the time the ring comes back to it.
constexpr std::size_t NEW_EVENT_RING = 4096;
constexpr long long FIRST_SECOND = 1731676205;

std::vector<std::string> newEventLines() {
    std::vector<std::string> lines;
    lines.reserve(NEW_EVENT_RING);
    for (std::size_t i = 0; i < NEW_EVENT_RING; ++i) {
        lines.push_back("type=QIRN_AVC msg=audit(" +
                        std::to_string(FIRST_SECOND + static_cast<long long>(i)) +
                        ".123:4567): avc:  denied  { write } for  pid=1234 comm=\"bash\" "
                        "name=\"/etc/passwd\" dev=\"sda1\" ino=5678 container_id=7b1e04 "
                        "scontext=system_u:system_r:container_t "
                        "tcontext=system_u:object_r:etc_t tclass=file permissive=0");
    }
    return lines;
}

void reportAllocations(benchmark::State& state, std::size_t before) {
    state.counters["allocs_per_iter"] = benchmark::Counter(
        static_cast<double>(allocationCount.load() - before), benchmark::Counter::kAvgIterations);
}

void convertLine(LogConverter& converter, const std::string& line) {
    const LogConverter::ParseResult result = converter.parseLine(line);
    std::string output = converter.convertToOutputFormat(result);
    benchmark::DoNotOptimize(output);
}

void BM_BaselineTypeSearch(benchmark::State& state) {
    std::string_view line = SYSCALL_LINE;
    const std::size_t before = allocationCount.load();
    for (auto _ : state) {
        benchmark::DoNotOptimize(line);
        bool match = false;
        const std::size_t marker = line.find("type=");
        if (marker != std::string_view::npos) {
            const std::size_t start = marker + 5;
            const std::size_t end = line.find(' ', start);
            const std::string_view value =
                line.substr(start, end == std::string_view::npos ? end : end - start);
            match = value == "QIRN_AVC" || value == "QIRN_NETCTL";
        }
        benchmark::DoNotOptimize(match);
    }
    reportAllocations(state, before);
}
BENCHMARK(BM_BaselineTypeSearch);

void BM_RejectedLine(benchmark::State& state) {
    LogConverter::setDebugMode(false);
    LogConverter& converter = LogConverter::getInstance();
    const std::size_t before = allocationCount.load();
    for (auto _ : state) {
        convertLine(converter, SYSCALL_LINE);
    }
    reportAllocations(state, before);
}
BENCHMARK(BM_RejectedLine);

void BM_NewEvent(benchmark::State& state) {
    LogConverter::setDebugMode(false);
    LogConverter& converter = LogConverter::getInstance();
    const std::vector<std::string> lines = newEventLines();
    std::size_t next = 0;
    const std::size_t before = allocationCount.load();
    for (auto _ : state) {
        convertLine(converter, lines[next]);
        next = (next + 1) % NEW_EVENT_RING;
    }
    reportAllocations(state, before);
}
BENCHMARK(BM_NewEvent);

void BM_DuplicateEvent(benchmark::State& state) {
    LogConverter::setDebugMode(false);
    LogConverter& converter = LogConverter::getInstance();
    convertLine(converter, AVC_LINE);
    const std::size_t before = allocationCount.load();
    for (auto _ : state) {
        convertLine(converter, AVC_LINE);
    }
    reportAllocations(state, before);
}
BENCHMARK(BM_DuplicateEvent);

}  // namespace

BENCHMARK_MAIN();
