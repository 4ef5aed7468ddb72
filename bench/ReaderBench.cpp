// Cost of following the input file: one read of a 10000-line chunk into a
// no-op callback beside a bare read + memchr newline count of the same bytes,
// and the cost of one idle poll (rotation check plus an empty read).

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "logging/Logger.h"
#include "reader/LogReader.h"
#include "support/TempDir.h"

namespace {

constexpr int CHUNK_LINES = 10000;
constexpr size_t LINE_BYTES = 300;  // newline included
constexpr size_t CHUNK_BYTES = CHUNK_LINES * LINE_BYTES;

void writeAll(const std::string& path, const std::string& content, int flags) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | flags, 0644);
    if (fd < 0 ||
        write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        throw std::runtime_error("cannot write " + path);
    }
    close(fd);
}

// Audit-like lines of exactly LINE_BYTES bytes.
std::string makeChunk() {
    std::string chunk;
    chunk.reserve(CHUNK_BYTES);
    for (int i = 0; i < CHUNK_LINES; ++i) {
        char head[64];
        const int length =
            std::snprintf(head, sizeof head, "type=QIRN_AVC msg=audit(1700000000.%06d:1): ", i);
        std::string line(head, static_cast<size_t>(length));
        line.resize(LINE_BYTES - 1, 'x');
        chunk += line;
        chunk += '\n';
    }
    return chunk;
}

// A private directory holding the chunk file and the diagnostic log.
class Workspace {
public:
    Workspace() { Logger::getInstance().init(dir_.file("bench.log"), false); }
    std::string file(const std::string& name) const { return dir_.file(name); }

private:
    testing_support::TempDir dir_;
};

Workspace& workspace() {
    static Workspace instance;
    return instance;
}

void BM_ReadNewLines10000Lines(benchmark::State& state) {
    const std::string path = workspace().file("chunk.log");
    writeAll(path, "", O_TRUNC);
    auto reader = LogReader::create(path);
    // Opened while empty, the reader stays at offset 0; reading without
    // advancing then takes the same chunk again on every iteration.
    if (!reader->openFile()) {
        state.SkipWithError("cannot open the chunk file");
        return;
    }
    writeAll(path, makeChunk(), O_APPEND);
    const LogReader::LineCallback noOp = [](const std::string&) {};

    for (auto _ : state) {
        benchmark::DoNotOptimize(reader->readNewLines(noOp, false));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(CHUNK_BYTES));
}

void BM_BaselineReadAndMemchrCount(benchmark::State& state) {
    const std::string path = workspace().file("baseline.log");
    writeAll(path, makeChunk(), O_TRUNC);
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
    std::vector<char> buffer(CHUNK_BYTES);

    for (auto _ : state) {
        lseek(fd, 0, SEEK_SET);
        const ssize_t bytesRead = read(fd, buffer.data(), buffer.size());
        const char* cursor = buffer.data();
        const char* const end = cursor + (bytesRead > 0 ? bytesRead : 0);
        int newlines = 0;
        while (cursor < end) {
            const void* found = std::memchr(cursor, '\n', static_cast<size_t>(end - cursor));
            if (found == nullptr) {
                break;
            }
            ++newlines;
            cursor = static_cast<const char*>(found) + 1;
        }
        benchmark::DoNotOptimize(newlines);
    }
    close(fd);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(CHUNK_BYTES));
}

// What one 100 ms cycle costs on a file that did not change, sleep excluded.
void BM_IdlePollCycle(benchmark::State& state) {
    const std::string path = workspace().file("idle.log");
    writeAll(path, makeChunk(), O_TRUNC);
    auto reader = LogReader::create(path);
    if (!reader->openFile()) {
        state.SkipWithError("cannot open the idle file");
        return;
    }
    const LogReader::LineCallback noOp = [](const std::string&) {};

    for (auto _ : state) {
        benchmark::DoNotOptimize(reader->checkRotation());
        benchmark::DoNotOptimize(reader->readNewLines(noOp, true));
    }
}

BENCHMARK(BM_ReadNewLines10000Lines)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BaselineReadAndMemchrCount)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_IdlePollCycle)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
