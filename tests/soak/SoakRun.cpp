// Soak and fault injection against the real service (in a private mount
// namespace, like the end-to-end tests).
//
// Matching and non-matching lines are appended at a steady rate far below the
// per-read limits while, on a schedule, the input is rotated (rename and a new
// file), truncated in place and replaced, and the output is rotated, truncated
// and deleted. The workload stays out of the windows in which the design
// accepts losses or repeats:
//  - before every fault the run waits until the service has read the input to
//    its end and written the last event (nothing is left in the old file);
//  - a new or truncated input stays empty (a replacement stays below 1024
//    bytes) until the service has reopened it, so it is neither skipped from
//    its end nor refilled past its old size between two polls;
//  - appends are whole lines, one write each, and never cross a page
//    boundary, so no poll sees a line half-written;
//  - a few dozen lines per 100 ms poll, far below 10000 lines per read;
//  - the duplicate cache is modelled, so that no repeat (a deliberate
//    duplicate, or the double delivery of a replacement's first chunk) meets
//    the moment the cache is emptied.
// At the end: exit status 0 after SIGTERM, every event exactly once and in
// order across the rotated output files, no ERROR line, the same number of
// open descriptors at every quiet point, and bounded memory.
//
// Usage: qlc_soak [--duration SECONDS] [--fault-every SECONDS] [--binary PATH]

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/AuditLines.h"
#include "support/ProcessProbe.h"
#include "support/ServiceRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr int64_t BASE_TIME = 1731676205;
constexpr const char* SERVICE_INPUT = "/var/log/qirn_audit.log";
constexpr milliseconds TICK{10};       // one batch per tick
constexpr int DUPLICATE_EVERY = 10;    // every 10th event is appended twice
constexpr int REPLACEMENT_EVENTS = 3;  // about 800 bytes: below 1024
constexpr size_t CACHE_LIMIT = 1000;   // the converter's duplicate cache
constexpr size_t CACHE_MARGIN = 300;   // lines that may follow a replacement's double read
constexpr int64_t PAGE = 4096;
constexpr long long MEMORY_LIMIT_KIB = 64 * 1024;
constexpr seconds WAIT_LIMIT{30};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#else
constexpr bool SANITIZED = false;
#endif

struct Options {
    int durationSeconds = 120;
    int faultEverySeconds = 5;
    std::string binary = QLC_BINARY_PATH;
};

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--duration") {
            options.durationSeconds = std::atoi(argv[i + 1]);
        } else if (name == "--fault-every") {
            options.faultEverySeconds = std::max(1, std::atoi(argv[i + 1]));
        } else if (name == "--binary") {
            options.binary = argv[i + 1];
        } else {
            std::fprintf(stderr, "unknown option %s\n", name.c_str());
            std::exit(2);
        }
    }
    return options;
}

// A fault that silently fails to happen would make the soak prove nothing,
// so a failed truncation is said.
void truncateInPlace(const std::string& path) {
    if (truncate(path.c_str(), 0) != 0) {
        std::printf("soak: cannot truncate %s: %s\n", path.c_str(), std::strerror(errno));
    }
}

std::string eventLine(int64_t n) {
    return avcLine(BASE_TIME + n, "soak", "/e/" + std::to_string(n));
}

// The output line the service writes for event n (TZ=UTC).
std::string expectedOutput(int64_t n) {
    const time_t when = static_cast<time_t>(BASE_TIME + n);
    struct tm utc {};
    gmtime_r(&when, &utc);
    char time[32];
    std::strftime(time, sizeof(time), "%b %d %H:%M:%S", &utc);
    return std::string(time) + ",container_id=soak,Event=filectl,path=/e/" + std::to_string(n) +
           ",status=enforcing";
}

// Reads the diagnostic log incrementally.
class DiagFollower {
public:
    explicit DiagFollower(std::string path) : path_(std::move(path)) {}

    void poll() {
        std::ifstream in(path_, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(offset_));
        std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const size_t lastNewline = chunk.rfind('\n');
        if (lastNewline == std::string::npos) {
            return;
        }
        size_t start = 0;
        while (start <= lastNewline) {
            const size_t newline = chunk.find('\n', start);
            lines_.push_back(chunk.substr(start, newline - start));
            start = newline + 1;
        }
        offset_ += lastNewline + 1;
    }

    size_t size() const { return lines_.size(); }
    const std::vector<std::string>& lines() const { return lines_; }

    // Waits for a line containing `part` among those after index `from`.
    bool waitFor(const std::string& part, size_t from) {
        return waitUntil(
            [&] {
                poll();
                for (size_t i = from; i < lines_.size(); ++i) {
                    if (lines_[i].find(part) != std::string::npos) {
                        return true;
                    }
                }
                return false;
            },
            WAIT_LIMIT);
    }

private:
    std::string path_;
    size_t offset_ = 0;
    std::vector<std::string> lines_;
};

class Soak {
public:
    explicit Soak(const Options& options) : options_(options), diag_(runner_.diagPath()) {}

    int run() {
        writeFile(runner_.inputPath(), "");
        ServiceOptions serviceOptions;
        serviceOptions.binary = options_.binary;
        runner_.start(serviceOptions);
        if (!runner_.waitUntilMonitoring(WAIT_LIMIT)) {
            return fail("the service did not start: " + runner_.stderrText());
        }
        // One event first, so that the writer's and reader's descriptors are
        // all open at the first quiet point.
        appendBatch({eventLine(nextEvent_++)}, 1);
        if (!catchUp()) {
            return fail("no first event");
        }

        const auto end = Clock::now() + seconds(options_.durationSeconds);
        auto nextFault = Clock::now() + seconds(options_.faultEverySeconds);
        auto nextTick = Clock::now();
        while (Clock::now() < end) {
            produceOneBatch();
            nextTick += TICK;
            std::this_thread::sleep_until(nextTick);
            if (Clock::now() >= nextFault) {
                if (!catchUp()) {
                    return fail("the service did not catch up before a fault");
                }
                injectFault();
                nextFault = Clock::now() + seconds(options_.faultEverySeconds);
                nextTick = Clock::now();
            }
        }
        if (!catchUp()) {
            return fail("the service did not catch up at the end");
        }
        int exitCode = -1;
        runner_.sendSignal(SIGTERM);
        const bool ended = runner_.waitForExit(WAIT_LIMIT, &exitCode);
        harvest(runner_.outputPath());
        return report(ended, exitCode);
    }

private:
    int fail(const std::string& why) {
        std::printf("soak: FAILED: %s\n", why.c_str());
        return 1;
    }

    // Model of the converter's duplicate cache: one key per new event, all
    // keys dropped when the 1001st arrives.
    void cacheInsert() {
        ++cacheFill_;
        if (cacheFill_ > CACHE_LIMIT) {
            cacheFill_ = 0;
            ++cacheClears_;
        }
    }

    // One write of whole lines, padded first to the next page boundary if
    // the batch would cross it.
    void appendBatch(const std::vector<std::string>& lines, int newEvents) {
        std::string batch;
        for (const std::string& line : lines) {
            batch += line;
            batch += '\n';
        }
        const int fd = open(runner_.inputPath().c_str(), O_WRONLY | O_APPEND);
        if (fd < 0) {
            std::perror("open input");
            std::exit(1);
        }
        struct stat info {};
        fstat(fd, &info);
        const int64_t inPage = static_cast<int64_t>(info.st_size) % PAGE;
        if (inPage + static_cast<int64_t>(batch.size()) > PAGE) {
            const int64_t pad = PAGE - inPage;
            const std::string filler = std::string(static_cast<size_t>(pad - 1), '#') + "\n";
            writeAll(fd, filler);
            ++paddings_;
        }
        writeAll(fd, batch);
        close(fd);
        linesAppended_ += static_cast<int64_t>(lines.size());
        for (int i = 0; i < newEvents; ++i) {
            cacheInsert();
        }
    }

    static void writeAll(int fd, const std::string& data) {
        if (write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
            std::perror("write input");
            std::exit(1);
        }
    }

    void produceOneBatch() {
        const int64_t n = nextEvent_++;
        std::vector<std::string> lines{eventLine(n), syscallLine(BASE_TIME + n)};
        const size_t fillAfterInsert = cacheFill_ + 1 > CACHE_LIMIT ? 0 : cacheFill_ + 1;
        if (n % DUPLICATE_EVERY == 0) {
            // A repeat is suppressed only while its key is still cached.
            if (fillAfterInsert != 0) {
                lines.push_back(eventLine(n));
                ++duplicatesSent_;
            } else {
                ++duplicatesAvoided_;
            }
        }
        appendBatch(lines, 1);
    }

    // Waits until the service has read the input to its end and written the
    // last event, then samples descriptors and memory at this quiet point.
    bool catchUp() {
        const std::string expected = expectedOutput(nextEvent_ - 1);
        const bool caughtUp = waitUntil(
            [&] {
                const long long size = fileSize(runner_.inputPath());
                if (readOffset(runner_.pid(), SERVICE_INPUT) != size) {
                    return false;
                }
                const std::vector<std::string> output = readLines(runner_.outputPath());
                return !output.empty() && output.back() == expected;
            },
            WAIT_LIMIT);
        if (!caughtUp) {
            ++catchUpTimeouts_;
            return false;
        }
        const size_t descriptors = openDescriptors(runner_.pid()).size();
        descriptorCounts_[descriptors]++;
        const long long rss = procStatusKib(runner_.pid(), "VmRSS");
        maxRssKib_ = std::max(maxRssKib_, rss);
        if (firstRssKib_ < 0) {
            firstRssKib_ = rss;
        }
        lastRssKib_ = rss;
        peakHwmKib_ = std::max(peakHwmKib_, procStatusKib(runner_.pid(), "VmHWM"));
        return true;
    }

    // Reads the output file's lines into the record before it is rotated,
    // truncated or deleted (or at the end).
    void harvest(const std::string& path) {
        for (std::string& line : readLines(path)) {
            record_.push_back(std::move(line));
        }
    }

    std::string inodeText(const std::string& path) const {
        struct stat info {};
        stat(path.c_str(), &info);
        return std::to_string(static_cast<uint64_t>(info.st_ino));
    }

    bool waitForReopen(const std::string& inode, size_t from) {
        const std::string opened =
            std::string("Opened file ") + SERVICE_INPUT + ", inode: " + inode + ",";
        if (!diag_.waitFor(opened, from)) {
            ++reopenTimeouts_;
            return false;
        }
        return true;
    }

    void injectFault() {
        diag_.poll();
        const size_t from = diag_.size();
        const std::string input = runner_.inputPath();
        const std::string output = runner_.outputPath();
        const int kind = faultIndex_++ % 6;
        switch (kind) {
            case 0: {  // input rotated: renamed away, a new empty file created
                const std::string rotated = input + ".1";
                unlink(rotated.c_str());
                rename(input.c_str(), rotated.c_str());
                writeFile(input, "");
                waitForReopen(inodeText(input), from);
                ++faults_["input rotated"];
                break;
            }
            case 1: {  // output rotated: renamed away, a new empty file created
                harvest(output);
                const std::string rotated = output + ".1";
                rename(output.c_str(), rotated.c_str());
                writeFile(output, "");
                unlink(rotated.c_str());
                ++faults_["output rotated"];
                break;
            }
            case 2: {  // input truncated in place
                truncateInPlace(input);
                waitForReopen(inodeText(input), from);
                ++faults_["input truncated"];
                break;
            }
            case 3: {  // output truncated in place
                harvest(output);
                truncateInPlace(output);
                ++faults_["output truncated"];
                break;
            }
            case 4: {  // input replaced by a small new file moved over it
                const std::string staged = input + ".new";
                std::string content;
                int events = 0;
                // Its first chunk is delivered twice; the duplicate check
                // absorbs the repeat only if the cache is not emptied meanwhile.
                if (cacheFill_ + REPLACEMENT_EVENTS + CACHE_MARGIN <= CACHE_LIMIT) {
                    for (; events < REPLACEMENT_EVENTS; ++events) {
                        content += eventLine(nextEvent_ + events) + "\n";
                    }
                } else {
                    ++replacementsLeftEmpty_;
                }
                writeFile(staged, content);
                const std::string inode = inodeText(staged);
                rename(staged.c_str(), input.c_str());
                nextEvent_ += events;
                for (int i = 0; i < events; ++i) {
                    cacheInsert();
                }
                waitForReopen(inode, from);
                ++faults_["input replaced"];
                break;
            }
            case 5: {  // output deleted
                harvest(output);
                unlink(output.c_str());
                ++faults_["output deleted"];
                break;
            }
        }
    }

    int report(bool ended, int exitCode) {
        diag_.poll();
        // Every event 0 .. nextEvent_-1 exactly once and in order.
        int64_t lost = 0;
        int64_t repeated = 0;
        int64_t outOfOrder = 0;
        int64_t malformed = 0;
        std::vector<int> seen(static_cast<size_t>(nextEvent_), 0);
        int64_t previous = -1;
        const std::string marker = ",path=/e/";
        for (const std::string& line : record_) {
            const size_t at = line.find(marker);
            const int64_t n =
                at == std::string::npos ? -1 : std::atoll(line.c_str() + at + marker.size());
            if (n < 0 || n >= nextEvent_ || line != expectedOutput(n)) {
                ++malformed;
                continue;
            }
            if (seen[static_cast<size_t>(n)]++ > 0) {
                ++repeated;
            }
            if (n <= previous) {
                ++outOfOrder;
            }
            previous = n;
        }
        for (int count : seen) {
            if (count == 0) {
                ++lost;
            }
        }
        int errors = 0;
        int warnings = 0;
        std::map<std::string, int> reopens;
        for (const std::string& line : diag_.lines()) {
            errors += line.find("] [ERROR] ") != std::string::npos ? 1 : 0;
            warnings += line.find("] [WARN] ") != std::string::npos ? 1 : 0;
            for (const char* kind : {"logrotate detected", "likely vim save", "< previous position",
                                     "Continuing from position", "Failed to reopen file"}) {
                if (line.find(kind) != std::string::npos) {
                    reopens[kind]++;
                }
            }
        }
        const std::string stderrText = runner_.stderrText();
        const bool sanitizerReport = stderrText.find("Sanitizer") != std::string::npos ||
                                     stderrText.find("runtime error") != std::string::npos;
        int faultTotal = 0;
        for (const auto& entry : faults_) {
            faultTotal += entry.second;
        }

        std::printf(
            "soak: %d s, %lld events (%lld input lines, %lld deliberate duplicates), "
            "%d faults injected\n",
            options_.durationSeconds, static_cast<long long>(nextEvent_),
            static_cast<long long>(linesAppended_), static_cast<long long>(duplicatesSent_),
            faultTotal);
        for (const auto& [name, count] : faults_) {
            std::printf("soak:   fault %-17s %d\n", name.c_str(), count);
        }
        std::printf(
            "soak: events lost %lld, repeated %lld, out of order %lld, malformed lines "
            "%lld\n",
            static_cast<long long>(lost), static_cast<long long>(repeated),
            static_cast<long long>(outOfOrder), static_cast<long long>(malformed));
        std::printf(
            "soak: windows avoided: %d page paddings, %d duplicates withheld at a cache "
            "clearing, %d replacements left empty; duplicate cache emptied %d times\n",
            paddings_, duplicatesAvoided_, replacementsLeftEmpty_, cacheClears_);
        std::printf(
            "soak: windows entered anyway: %d catch-up timeouts, %d reopen timeouts, %d "
            "large replacements read from their end\n",
            catchUpTimeouts_, reopenTimeouts_, reopens["likely vim save"]);
        std::printf(
            "soak: reopens: %d rotation (small new file), %d truncation, %d "
            "continuation, %d failed and retried\n",
            reopens["logrotate detected"], reopens["< previous position"],
            reopens["Continuing from position"], reopens["Failed to reopen file"]);
        std::printf("soak: diagnostic log: %d ERROR, %d WARN lines\n", errors, warnings);
        std::string descriptorText;
        for (const auto& [count, times] : descriptorCounts_) {
            descriptorText += " " + std::to_string(count) + " (x" + std::to_string(times) + ")";
        }
        std::printf("soak: open descriptors at quiet points:%s\n", descriptorText.c_str());
        std::printf("soak: VmRSS first %lld KiB, last %lld KiB, max %lld KiB; VmHWM %lld KiB\n",
                    firstRssKib_, lastRssKib_, maxRssKib_, peakHwmKib_);
        std::printf("soak: exit status %d%s\n", exitCode,
                    sanitizerReport ? ", sanitizer report on stderr" : "");

        bool passed = true;
        auto check = [&passed](bool condition, const char* what) {
            if (!condition) {
                std::printf("soak: FAILED: %s\n", what);
                passed = false;
            }
        };
        check(ended && exitCode == 0, "exit status 0 after SIGTERM");
        check(!sanitizerReport, "no sanitizer report");
        check(lost == 0, "no event lost");
        check(repeated == 0, "no event written twice");
        check(outOfOrder == 0, "events in order");
        check(malformed == 0, "every output line well formed");
        check(errors == 0, "no ERROR line in the diagnostic log");
        check(descriptorCounts_.size() == 1, "the same number of open descriptors throughout");
        check(catchUpTimeouts_ == 0 && reopenTimeouts_ == 0, "no wait timed out");
        check(SANITIZED || peakHwmKib_ < MEMORY_LIMIT_KIB, "VmHWM below 64 MiB");
        if (passed) {
            std::printf("soak: PASSED\n");
        }
        return passed ? 0 : 1;
    }

    Options options_;
    ServiceRunner runner_;
    DiagFollower diag_;
    std::vector<std::string> record_;
    int64_t nextEvent_ = 0;
    int64_t linesAppended_ = 0;
    int64_t duplicatesSent_ = 0;
    size_t cacheFill_ = 0;
    int cacheClears_ = 0;
    int duplicatesAvoided_ = 0;
    int replacementsLeftEmpty_ = 0;
    int paddings_ = 0;
    int faultIndex_ = 0;
    int catchUpTimeouts_ = 0;
    int reopenTimeouts_ = 0;
    std::map<std::string, int> faults_;
    std::map<size_t, int> descriptorCounts_;
    long long firstRssKib_ = -1;
    long long lastRssKib_ = -1;
    long long maxRssKib_ = -1;
    long long peakHwmKib_ = -1;
};

}  // namespace

int main(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    Soak soak(options);
    return soak.run();
}
