// Cost of one output line: LogWriter::writeLine (a stat of the path, the
// line and its newline, a flush) beside the two system calls it cannot do
// without, a bare stat and a bare write of the same bytes.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <benchmark/benchmark.h>

#include "logging/Logger.h"
#include "support/TempDir.h"
#include "writer/LogWriter.h"

namespace {

const std::string LINE =
    "Nov 15 13:10:05,container_id=3f2a9c0b1d2e,Event=filectl,path=/etc/passwd,status=enforcing";

// A private directory for the files and the diagnostic log.
class Workspace {
public:
    Workspace() { Logger::getInstance().init(dir_.file("diag.log"), false); }
    std::string file(const char* name) const { return dir_.file(name); }

private:
    testing_support::TempDir dir_;
};

Workspace& workspace() {
    static Workspace instance;
    return instance;
}

void BM_WriteLine(benchmark::State& state) {
    LogWriter writer(workspace().file("events.log"));
    for (auto _ : state) {
        benchmark::DoNotOptimize(writer.writeLine(LINE));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_WriteLine);

// The floor of the design's "every line is in the kernel before writeLine
// returns": one stat of the path and one write of the line with its newline.
void BM_BareStatAndWrite(benchmark::State& state) {
    const std::string path = workspace().file("bare.log");
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const std::string bytes = LINE + "\n";
    for (auto _ : state) {
        struct stat info {};
        benchmark::DoNotOptimize(stat(path.c_str(), &info));
        benchmark::DoNotOptimize(write(fd, bytes.data(), bytes.size()));
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareStatAndWrite);

void BM_BareWrite(benchmark::State& state) {
    const std::string path = workspace().file("bare.log");
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const std::string bytes = LINE + "\n";
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(fd, bytes.data(), bytes.size()));
    }
    close(fd);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareWrite);

void BM_BareStat(benchmark::State& state) {
    const std::string path = workspace().file("bare.log");
    for (auto _ : state) {
        struct stat info {};
        benchmark::DoNotOptimize(stat(path.c_str(), &info));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareStat);

}  // namespace

BENCHMARK_MAIN();
