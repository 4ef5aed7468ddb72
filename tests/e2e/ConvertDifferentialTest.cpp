// The companion command against the real service: a generated workload fed
// to the service so that every line reaches it whole (pieces of at most 5000
// lines, each ended by a sentinel whose event is awaited, appended while the
// service is stopped between two polls), then converted by the command. The
// two outputs must be identical, byte for byte.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "support/AuditLines.h"
#include "support/CommandRunner.h"
#include "support/ServiceRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;
using std::chrono::seconds;

namespace {

constexpr std::size_t PIECE_LINES = 5000;
constexpr int64_t SENTINEL_TIME = 1731676205;

struct Workload {
    int seed;
    int lines;
    const char* repeatShare;
    const char* tz;
};

std::vector<std::string> generate(const TempDir& dir, const Workload& workload) {
    const std::string path = dir.file("workload-" + std::to_string(workload.seed) + ".log");
    const CommandResult result =
        runCommand("/usr/bin/python3",
                   {std::string(QLC_SOURCE_DIR) + "/bench/workload.py", "--lines",
                    std::to_string(workload.lines), "--seed", std::to_string(workload.seed),
                    "--repeat-share", workload.repeatShare, "--out", path});
    EXPECT_EQ(result.exitCode, 0) << result.stderrText;
    return readLines(path);
}

std::string sentinel(std::size_t piece) {
    return avcLine(SENTINEL_TIME, "sentinel-" + std::to_string(piece), "/sentinel");
}

bool outputHasSentinel(const ServiceRunner& runner, std::size_t piece) {
    const std::string text = readFile(runner.outputPath());
    return text.find(",container_id=sentinel-" + std::to_string(piece) + ",") != std::string::npos;
}

void feedAndCompare(const Workload& workload) {
    QLC_SKIP_WITHOUT_PRIVATE_MOUNTS();
    TempDir dir;
    const std::vector<std::string> lines = generate(dir, workload);
    ASSERT_GT(lines.size(), PIECE_LINES);

    ServiceRunner runner;
    writeFile(runner.inputPath(), "");
    ServiceOptions options;
    options.tz = workload.tz;
    runner.start(options);
    ASSERT_TRUE(runner.waitUntilMonitoring(seconds(15))) << runner.stderrText();

    // Each piece is the next lines of the workload and its sentinel.
    std::size_t start = 0;
    for (std::size_t piece = 0; start < lines.size(); ++piece) {
        const std::size_t end = std::min(lines.size(), start + PIECE_LINES - 1);
        std::vector<std::string> chunk(lines.begin() + static_cast<long>(start),
                                       lines.begin() + static_cast<long>(end));
        chunk.push_back(sentinel(piece));
        start = end;
        ASSERT_TRUE(runner.pause());
        appendLines(runner.inputPath(), chunk);
        runner.resume();
        ASSERT_TRUE(waitUntil([&] { return outputHasSentinel(runner, piece); }, seconds(30)))
            << "piece " << piece;
    }
    EXPECT_EQ(runner.stop(), 0);

    const CommandResult converted =
        runConvert({"--quiet", runner.inputPath()}, "", {{"TZ", workload.tz}});
    EXPECT_EQ(converted.exitCode, 0) << converted.stderrText;
    const std::string serviceOutput = readFile(runner.outputPath());
    EXPECT_GT(serviceOutput.size(), 0u);
    EXPECT_TRUE(converted.stdoutText == serviceOutput)
        << "outputs differ: service " << serviceOutput.size() << " bytes, command "
        << converted.stdoutText.size() << " bytes";
}

}  // namespace

TEST(ConvertDifferentialTest, SeedOneGivesTheServiceOutputByteForByte) {
    feedAndCompare({1, 24000, "0.0", "UTC"});
}

TEST(ConvertDifferentialTest, SeedTwoWithRepeatsGivesTheServiceOutputByteForByte) {
    feedAndCompare({2, 24000, "0.3", "UTC"});
}

TEST(ConvertDifferentialTest, SeedThreeInAnotherZoneGivesTheServiceOutputByteForByte) {
    feedAndCompare({3, 24000, "0.1", "Europe/Berlin"});
}
