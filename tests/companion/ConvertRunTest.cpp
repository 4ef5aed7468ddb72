// The run in this process, through its file-descriptor constructor: events,
// explanations, the time window, reconcile and the exit statuses, with the
// output and the reports read back from the files the descriptors write.
// The converter's duplicate cache lives for the whole process, so every run
// uses paths of its own, also when the tests are repeated.

#include "companion/ConvertRun.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "companion/ExitCode.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

std::string avcLine(const std::string& stamp, const std::string& path,
                    const std::string& operation = "write") {
    return "type=QIRN_AVC msg=audit(" + stamp + "): avc:  denied  { " + operation +
           " } for  pid=1 name=\"" + path + "\" container_id=3f2a9c";
}

// A path no earlier run of this process used.
std::string freshPath() {
    static int runs = 0;
    return "/run/convert-run-test/" + std::to_string(++runs);
}

const std::string SYSCALL = "type=SYSCALL msg=audit(1731676205.100:1): arch=c000003e";

struct Ran {
    int status;
    std::string output;
    std::string errors;
};

class ConvertRunTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }

    // Runs over `input` (written to a file) with `options`, its inputs set.
    Ran run(ConvertOptions options, const std::string& input) {
        writeFile(dir_.file("in"), input);
        options.inputs = {dir_.file("in")};
        const int out = open(dir_.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(dir_.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_GE(out, 0);
        EXPECT_GE(err, 0);
        Ran ran{};
        {
            ConvertRun convertRun(options, out, err);
            ran.status = convertRun.run();
        }
        close(out);
        close(err);
        ran.output = readFile(dir_.file("out"));
        ran.errors = readFile(dir_.file("err"));
        return ran;
    }

    TempDir dir_;
};

}  // namespace

TEST_F(ConvertRunTest, EventsAreWrittenAsTheServiceWritesThemAndSummarised) {
    const std::string path = freshPath();
    const Ran ran =
        run(ConvertOptions(), SYSCALL + "\n" + avcLine("1731676205.000:7", path) + "\n");
    EXPECT_EQ(ExitCode::DONE, ran.status);
    EXPECT_EQ(
        "Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=" + path + ",status=enforcing\n",
        ran.output);
    EXPECT_NE(std::string::npos, ran.errors.find("lines read")) << ran.errors;
}

TEST_F(ConvertRunTest, QuietRunReportsNothingAndNoEventIsItsOwnStatus) {
    ConvertOptions options;
    options.quiet = true;
    const Ran ran = run(options, SYSCALL + "\n");
    EXPECT_EQ(ExitCode::NO_EVENT, ran.status);
    EXPECT_EQ("", ran.output);
    EXPECT_EQ("", ran.errors);
}

TEST_F(ConvertRunTest, JsonEventCarriesTheStampAndHexOfAPathThatIsNotUtf8) {
    ConvertOptions options;
    options.format = ConvertOptions::Format::JSON;
    const std::string path = freshPath() + "\xff";
    const Ran ran = run(options, avcLine("1731676205.000:8", path) + "\n");
    EXPECT_EQ(ExitCode::DONE, ran.status);
    EXPECT_NE(std::string::npos, ran.output.find("\"audit_seconds\":1731676205,\"serial\":8"))
        << ran.output;
    std::string hex;
    for (const unsigned char c : path) {
        const char* const digits = "0123456789abcdef";
        hex += digits[c >> 4];
        hex += digits[c & 0xf];
    }
    EXPECT_NE(std::string::npos, ran.output.find(",\"path_hex\":\"" + hex + "\"}\n")) << ran.output;
}

TEST_F(ConvertRunTest, RecordsOutsideTheWindowAreExplainedWithTheirAuditTime) {
    ConvertOptions options;
    options.explain = ConvertOptions::Explain::SKIPPED;
    options.hasSince = true;
    options.since = 1731676300;
    options.quiet = true;
    const Ran ran = run(options, avcLine("1731676205.000:9", freshPath()) + "\n");
    EXPECT_EQ(ExitCode::DONE, ran.status);
    EXPECT_EQ(dir_.file("in") + ":1\tskip\tout-of-range\taudit time 1731676205\n", ran.output);
}

TEST_F(ConvertRunTest, ReconcileWritesOnlyWhatTheEventLogsLack) {
    const std::string present = freshPath();
    const std::string missing = freshPath();
    writeFile(dir_.file("events"), "Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=" +
                                       present + ",status=enforcing\n");
    ConvertOptions options;
    options.eventLogs = {dir_.file("events")};
    options.hasSettle = true;
    options.settle = 0;
    options.quiet = true;
    const Ran ran = run(options, avcLine("1731676205.000:10", present) + "\n" +
                                     avcLine("1731676205.000:11", missing) + "\n");
    EXPECT_EQ(ExitCode::DONE, ran.status);
    EXPECT_EQ(
        "Nov 15 13:10:05,container_id=3f2a9c,Event=filectl,path=" + missing + ",status=enforcing\n",
        ran.output);
}

TEST_F(ConvertRunTest, StrictRunFailsOnALineWithoutStamp) {
    ConvertOptions options;
    options.strict = true;
    options.quiet = true;
    const Ran ran = run(options, "type=QIRN_AVC avc: denied { write } name=\"" + freshPath() +
                                     "\" container_id=3f2a9c\n" +
                                     avcLine("1731676205.000:12", freshPath()) + "\n");
    EXPECT_EQ(ExitCode::STRICT, ran.status);
}

TEST_F(ConvertRunTest, AnInputThatCannotBeOpenedIsAnErrorNamedOnTheErrorDescriptor) {
    ConvertOptions options;
    options.quiet = true;
    options.inputs = {dir_.file("missing")};
    const int out = open(dir_.file("out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int err = open(dir_.file("err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ConvertRun convertRun(options, out, err);
    EXPECT_EQ(ExitCode::ERROR, convertRun.run());
    close(out);
    close(err);
    EXPECT_EQ(
        "qirn-log-convert: " + dir_.file("missing") + ": cannot open: No such file or directory\n",
        readFile(dir_.file("err")));
}
