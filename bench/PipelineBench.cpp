// Cost of one input line through the line callback, converter and writer, in
// process and without the reader: a rejected kernel record, a new event
// (converted and written to a real file, two system calls), a repeated
// event (suppressed), and a mix of 90% rejected lines and 10% new events.

#include <stdlib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "app/Pipeline.h"
#include "logging/Logger.h"
#include "support/TempDir.h"

namespace {

constexpr int64_t BASE_TIME = 1731676205;
// New events per audit second in the mixed case: the time stamp repeats as it
// does in a busy audit log.
constexpr int EVENTS_PER_SECOND = 100;
constexpr int MIX_REJECTED_PER_EVENT = 9;

std::string syscallLine(int64_t seconds) {
    return "type=SYSCALL msg=audit(" + std::to_string(seconds) +
           ".123:4566): arch=c000003e syscall=257 success=no exit=-13 a0=ffffff9c a1=7ffd "
           "a2=241 a3=1b6 items=1 ppid=1000 pid=1234 auid=1000 uid=0 gid=0 euid=0 suid=0 "
           "fsuid=0 egid=0 sgid=0 fsgid=0 tty=pts0 ses=3 comm=\"bash\" exe=\"/usr/bin/bash\" "
           "subj=system_u:system_r:container_t:s0 key=(null)";
}

std::string avcLine(int64_t seconds, int serial) {
    return "type=QIRN_AVC msg=audit(" + std::to_string(seconds) + ".123:" + std::to_string(serial) +
           "): avc:  denied  { write } for  pid=1234 comm=\"bash\" name=\"/etc/app/file-" +
           std::to_string(serial % 1000) +
           "\" dev=\"sda1\" ino=5678 container_id=3f2a9c0b1d2e "
           "scontext=system_u:system_r:container_t:s0 tcontext=system_u:object_r:etc_t:s0 "
           "tclass=file permissive=0";
}

// A private directory for the output file and the diagnostic log; the time
// zone is fixed so that every run converts the same way.
class Workspace {
public:
    Workspace() {
        setenv("TZ", "Europe/Berlin", 1);
        Logger::getInstance().init(dir_.file("diag.log"), false);
    }
    std::string output() const { return dir_.file("events.log"); }

private:
    testing_support::TempDir dir_;
};

Workspace& workspace() {
    static Workspace instance;
    return instance;
}

// The converter is a process-wide singleton, so its duplicate cache carries
// over between cases; each case uses time stamps of its own.
struct Pipeline {
    Pipeline() : writer(std::make_unique<LogWriter>(workspace().output())) {
        callback = makeLineCallback(LogConverter::getInstance(), writer);
    }
    WriterHolder writer;
    LogReader::LineCallback callback;
};

void BM_RejectedLine(benchmark::State& state) {
    Pipeline pipeline;
    const std::string line = syscallLine(BASE_TIME);
    for (auto _ : state) {
        pipeline.callback(line);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RejectedLine);

void BM_NewEvent(benchmark::State& state) {
    Pipeline pipeline;
    // Distinct keys: a new second for every EVENTS_PER_SECOND events.
    int64_t serial = 0;
    const int64_t base = BASE_TIME + 1000000;
    std::vector<std::string> lines;
    for (int i = 0; i < 100000; ++i) {
        lines.push_back(avcLine(base + i / EVENTS_PER_SECOND, i));
    }
    for (auto _ : state) {
        pipeline.callback(lines[static_cast<size_t>(serial % 100000)]);
        ++serial;
        if (serial % 100000 == 0) {
            state.PauseTiming();
            for (size_t i = 0; i < lines.size(); ++i) {
                lines[i] = avcLine(base + (serial + static_cast<int64_t>(i)) / EVENTS_PER_SECOND,
                                   static_cast<int>(i));
            }
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_NewEvent);

void BM_RepeatedEvent(benchmark::State& state) {
    Pipeline pipeline;
    const std::string line = avcLine(BASE_TIME + 2000000, 7);
    pipeline.callback(line);
    for (auto _ : state) {
        pipeline.callback(line);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RepeatedEvent);

// Nine rejected kernel records per new event, as in the end-to-end workload.
void BM_MixTenPercentEvents(benchmark::State& state) {
    Pipeline pipeline;
    const int64_t base = BASE_TIME + 3000000;
    std::vector<std::string> lines;
    int events = 0;
    for (int i = 0; i < 200000; ++i) {
        if (i % (MIX_REJECTED_PER_EVENT + 1) == 0) {
            lines.push_back(avcLine(base + events / EVENTS_PER_SECOND, events));
            ++events;
        } else {
            lines.push_back(syscallLine(base + events / EVENTS_PER_SECOND));
        }
    }
    size_t index = 0;
    int64_t round = 0;
    for (auto _ : state) {
        pipeline.callback(lines[index]);
        if (++index == lines.size()) {
            index = 0;
            ++round;
            // Shift the events to later seconds so that the next round is new again.
            state.PauseTiming();
            for (size_t i = 0; i < lines.size(); i += MIX_REJECTED_PER_EVENT + 1) {
                const int event = static_cast<int>(i) / (MIX_REJECTED_PER_EVENT + 1);
                lines[i] = avcLine(base + round * 10000 + event / EVENTS_PER_SECOND, event);
            }
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MixTenPercentEvents);

}  // namespace

BENCHMARK_MAIN();
