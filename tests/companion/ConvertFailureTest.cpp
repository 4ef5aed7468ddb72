// The built command on damaged inputs and unusual combinations, each damage
// made here: a truncated or corrupt gzip, a FIFO, a full device, a small or
// read-only tmpfs in a private mount namespace, event logs of another TZ.
// Each case checks the exit status, what reached standard output and the
// checkpoint.

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "support/AuditLines.h"
#include "support/CommandRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

constexpr int64_t BASE_TIME = 1731676205;
const std::string PROGRAM = "qirn-log-convert: ";

// `count` audit lines, each a distinct event, one second apart from `first`.
std::string auditLines(std::size_t count, int64_t first = BASE_TIME) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += avcLine(first + static_cast<int64_t>(i), "c1", "/r/" + std::to_string(i)) + "\n";
    }
    return text;
}

std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

void gzip(const std::string& path) { ASSERT_EQ(std::system(("gzip -n -f " + path).c_str()), 0); }

// Runs the command with a tmpfs of `options` mounted on `mountPoint` in a
// private mount namespace, so that the machine's own mounts never change.
CommandResult runConvertWithTmpfs(const std::string& mountPoint, const std::string& options,
                                  const std::string& shellTail,
                                  const std::vector<std::string>& args) {
    std::vector<std::string> all{"-m",
                                 "--propagation",
                                 "private",
                                 "/bin/sh",
                                 "-c",
                                 "mount -t tmpfs -o \"$1\" tmpfs \"$2\" || exit 99; "
                                 "M=\"$2\"; shift 2; " +
                                     shellTail,
                                 "sh",
                                 options,
                                 mountPoint,
                                 QLC_CONVERT_PATH};
    all.insert(all.end(), args.begin(), args.end());
    return runCommand("/usr/bin/unshare", all, "", {{"TZ", "UTC"}});
}

// The number on the summary line that starts with `label`, or -1.
long long summaryValue(const std::string& summary, const std::string& label) {
    for (const std::string& line : splitLines(summary)) {
        if (line.rfind(label + " ", 0) == 0) {
            return std::stoll(line.substr(label.size()));
        }
    }
    return -1;
}

// The checkpoint's one entry: offset and next line.
std::pair<long long, long long> checkpointEntry(const std::string& path) {
    for (const std::string& line : readLines(path)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::istringstream fields(line);
        unsigned long long device = 0;
        unsigned long long inode = 0;
        long long offset = -1;
        long long next = -1;
        fields >> device >> inode >> offset >> next;
        return {offset, next};
    }
    return {-1, -1};
}

}  // namespace

// 1. Damaged compressed input.

TEST(ConvertFailureTest, TruncatedGzipIsAnErrorAndOnlyItsCleanLinesAreWritten) {
    TempDir dir;
    const std::string audit = dir.file("audit.log");
    writeFile(audit, auditLines(20000));
    const std::vector<std::string> all = splitLines(runConvert({"-q", audit}).stdoutText);
    gzip(audit);
    ASSERT_EQ(truncate((audit + ".gz").c_str(), fileSize(audit + ".gz") / 3), 0);

    const CommandResult result = runConvert({"-q", audit + ".gz"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stderrText, PROGRAM + audit +
                                     ".gz: cannot decompress: unexpected end of file (the file "
                                     "is truncated)\n");
    const std::vector<std::string> written = splitLines(result.stdoutText);
    ASSERT_GT(written.size(), 0u);
    ASSERT_LT(written.size(), all.size());
    // Whole lines only, each the one the intact file gives at its place.
    EXPECT_EQ(result.stdoutText.back(), '\n');
    EXPECT_EQ(written, std::vector<std::string>(all.begin(), all.begin() + written.size()));
}

TEST(ConvertFailureTest, TruncatedGzipCheckpointStopsAfterTheLastLineWritten) {
    TempDir dir;
    const std::string audit = dir.file("audit.log");
    const std::string lines = auditLines(20000);
    writeFile(audit, lines);
    gzip(audit);
    ASSERT_EQ(truncate((audit + ".gz").c_str(), fileSize(audit + ".gz") / 3), 0);
    const std::string checkpoint = dir.file("cp");

    const CommandResult result = runConvert({"-q", "--checkpoint", checkpoint, audit + ".gz"});
    EXPECT_EQ(result.exitCode, 2);
    const std::size_t written = splitLines(result.stdoutText).size();
    ASSERT_GT(written, 0u);
    std::size_t offset = 0;
    for (std::size_t i = 0; i < written; ++i) {
        offset = lines.find('\n', offset) + 1;
    }
    EXPECT_EQ(checkpointEntry(checkpoint),
              std::make_pair(static_cast<long long>(offset), static_cast<long long>(written + 1)));
}

TEST(ConvertFailureTest, CorruptGzipIsAnErrorNamingTheFile) {
    TempDir dir;
    const std::string audit = dir.file("audit.log");
    writeFile(audit, auditLines(2000));
    gzip(audit);
    std::string bytes = readFile(audit + ".gz");
    for (std::size_t i = bytes.size() / 2; i < bytes.size() / 2 + 64; ++i) {
        bytes[i] = static_cast<char>(bytes[i] ^ 0x55);
    }
    writeFile(audit + ".gz", bytes);
    const CommandResult result = runConvert({"-q", audit + ".gz"});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stderrText.rfind(PROGRAM + audit + ".gz: cannot decompress: ", 0), 0u)
        << result.stderrText;
}

TEST(ConvertFailureTest, GzNameWithoutGzipDataIsAnError) {
    TempDir dir;
    writeFile(dir.file("plain.gz"), auditLines(3));
    const CommandResult result = runConvert({"-q", dir.file("plain.gz")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText,
              PROGRAM + dir.file("plain.gz") + ": cannot decompress: not in gzip format\n");
}

// 2. Event logs that cannot be read to their end.

TEST(ConvertFailureTest, ReconcileWithMissingEventLogWritesNothing) {
    TempDir dir;
    writeFile(dir.file("audit"), auditLines(100));
    writeFile(dir.file("events"), "");
    const CommandResult result =
        runConvert({"-q", "--reconcile", dir.file("events"), "--reconcile", dir.file("typo"),
                    "--checkpoint", dir.file("cp"), dir.file("audit")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText,
              PROGRAM + dir.file("typo") + ": cannot open: No such file or directory\n" + PROGRAM +
                  "--reconcile: an event log could not be read to its end; nothing written\n");
    EXPECT_FALSE(fileExists(dir.file("cp")));
}

TEST(ConvertFailureTest, ReconcileWithTruncatedGzipEventLogWritesNothing) {
    TempDir dir;
    const std::string audit = dir.file("audit");
    writeFile(audit, auditLines(20000));
    writeFile(dir.file("events"), runConvert({"-q", audit}).stdoutText);
    gzip(dir.file("events"));
    ASSERT_EQ(truncate(dir.file("events.gz").c_str(), fileSize(dir.file("events.gz")) / 2), 0);
    const CommandResult result = runConvert({"--reconcile", dir.file("events.gz"), audit});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_NE(result.stderrText.find(dir.file("events.gz") +
                                     ": cannot decompress: unexpected end of file"),
              std::string::npos)
        << result.stderrText;
}

TEST(ConvertFailureTest, ReconcileOfIntactGzipEventLogFindsEveryEvent) {
    TempDir dir;
    const std::string audit = dir.file("audit");
    writeFile(audit, auditLines(20000));
    writeFile(dir.file("events"), runConvert({"-q", audit}).stdoutText);
    gzip(dir.file("events"));
    const CommandResult result = runConvert({"-q", "--reconcile", dir.file("events.gz"), audit});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, "");
}

// 3. Usage errors name the argument at fault.

TEST(ConvertFailureTest, UsageErrorsNameTheArgumentAtFault) {
    const std::map<std::vector<std::string>, std::string> cases = {
        {{"--frobnicate"}, "unknown or ambiguous option '--frobnicate'"},
        {{"--frobnicate=3"}, "unknown or ambiguous option '--frobnicate'"},
        {{"--s"}, "unknown or ambiguous option '--s'"},
        {{"-x"}, "unknown option '-x'"},
        {{"--settle"}, "--settle needs a value"},
        {{"--reconcile"}, "--reconcile needs a value"},
        {{"--strict=yes"}, "--strict takes no value, not '--strict=yes'"},
        {{"--settle", "soon"}, "--settle takes a number of seconds, not 'soon'"},
        {{"--checkpoint", "a", "--checkpoint", "b"}, "--checkpoint given twice"},
        {{"--format=json", "--format=line"}, "--format given twice"},
    };
    for (const auto& [args, message] : cases) {
        const CommandResult result = runConvert(args);
        EXPECT_EQ(result.exitCode, 2) << args[0];
        EXPECT_EQ(result.stderrText,
                  PROGRAM + message + "\nTry 'qirn-log-convert --help' for more information.\n");
        EXPECT_EQ(result.stdoutText, "");
    }
}

// 4. No option silently ignored.

TEST(ConvertFailureTest, ExplainWithCheckpointIsRefusedAndTheCheckpointUntouched) {
    TempDir dir;
    writeFile(dir.file("audit"), auditLines(3));
    writeFile(dir.file("cp"), "# kept\n");
    const CommandResult result =
        runConvert({"--explain", "--checkpoint", dir.file("cp"), dir.file("audit")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText, PROGRAM +
                                     "--explain cannot be used with --checkpoint: explaining "
                                     "converts nothing to record\n"
                                     "Try 'qirn-log-convert --help' for more information.\n");
    EXPECT_EQ(readFile(dir.file("cp")), "# kept\n");
}

TEST(ConvertFailureTest, ExplainWithJsonWritesOneObjectPerRow) {
    TempDir dir;
    const std::string audit = dir.file("audit");
    writeFile(audit, syscallLine(BASE_TIME) + "\n" + avcLine(BASE_TIME, "c1", "/a\xff") + "\n" +
                         avcLine(BASE_TIME, "c1", "/a\xff") + "\n");
    const CommandResult result = runConvert({"-q", "--explain=all", "--format=json", audit});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText,
              "{\"source\":\"" + audit +
                  ":1\",\"verdict\":\"skip\",\"reason\":\"type\",\"detail\":\"\"}\n"
                  "{\"source\":\"" +
                  audit +
                  ":2\",\"verdict\":\"event\",\"reason\":null,\"detail\":\"Nov 15 "
                  "13:10:05,container_id=c1,Event=filectl,path=/a\xef\xbf\xbd,status=enforcing\","
                  "\"detail_hex\":"
                  "\"4e6f762031352031333a31303a30352c636f6e7461696e65725f69643d63312c4576656e743d"
                  "66696c6563746c2c706174683d2f61ff2c7374617475733d656e666f7263696e67\"}\n"
                  "{\"source\":\"" +
                  audit +
                  ":3\",\"verdict\":\"skip\",\"reason\":\"duplicate\",\"detail\":\"c1|/"
                  "a\xef\xbf\xbd|Nov 15 13:10:05\",\"detail_hex\":\"63317c2f61ff7c4e6f762031352031"
                  "333a31303a3035\"}\n");
    writeFile(dir.file("rows.json"), result.stdoutText);
    const CommandResult check = runCommand(
        "/usr/bin/python3", {"-c",
                             "import json,sys\n"
                             "rows=[json.loads(l) for l in open(sys.argv[1],encoding='utf-8')]\n"
                             "assert [r['verdict'] for r in rows]==['skip','event','skip'], rows\n"
                             "assert [r['reason'] for r in rows]==['type',None,'duplicate'], rows\n"
                             "print('ok')\n",
                             dir.file("rows.json")});
    EXPECT_EQ(check.stdoutText, "ok\n") << check.stderrText;
}

// 5. The checkpoint's directory is checked first.

TEST(ConvertFailureTest, CheckpointInMissingDirectoryFailsBeforeAnyLineIsConverted) {
    TempDir dir;
    writeFile(dir.file("audit"), auditLines(3));
    const std::string checkpoint = dir.file("missing-dir/cp");
    const CommandResult result = runConvert({"--checkpoint", checkpoint, dir.file("audit")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText,
              PROGRAM + checkpoint + ".tmp: cannot write checkpoint: No such file or directory\n");
}

TEST(ConvertFailureTest, CheckpointOnReadOnlyFileSystemFailsBeforeAnyLineIsConverted) {
    TempDir dir;
    writeFile(dir.file("audit"), auditLines(3));
    const std::string mount = dir.file("ro");
    ASSERT_EQ(mkdir(mount.c_str(), 0700), 0);
    const CommandResult result = runConvertWithTmpfs(
        mount, "ro,size=64k", "exec \"$@\"", {"--checkpoint", mount + "/cp", dir.file("audit")});
    EXPECT_EQ(result.exitCode, 2) << result.stderrText;
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText,
              PROGRAM + mount + "/cp.tmp: cannot write checkpoint: Read-only file system\n");
}

TEST(ConvertFailureTest, CheckpointThatIsADirectoryFailsBeforeAnyLineIsConverted) {
    TempDir dir;
    writeFile(dir.file("audit"), auditLines(3));
    ASSERT_EQ(mkdir(dir.file("cp").c_str(), 0700), 0);
    const CommandResult result = runConvert({"--checkpoint", dir.file("cp"), dir.file("audit")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText,
              PROGRAM + dir.file("cp") + ": cannot write checkpoint: Is a directory\n");
}

// 6. Nothing new is not a failure.

TEST(ConvertFailureTest, CheckpointRunWithNothingNewExitsZeroAndKeepsTheCheckpoint) {
    TempDir dir;
    const std::string audit = dir.file("audit");
    const std::string checkpoint = dir.file("cp");
    writeFile(audit, auditLines(3) + syscallLine(BASE_TIME) + "\n");
    ASSERT_EQ(runConvert({"-q", "--checkpoint", checkpoint, audit}).exitCode, 0);
    const std::string saved = readFile(checkpoint);
    const CommandResult quiet = runConvert({"-q", "--checkpoint", checkpoint, audit});
    EXPECT_EQ(quiet.exitCode, 0);
    EXPECT_EQ(quiet.stdoutText, "");
    EXPECT_EQ(readFile(checkpoint), saved);
    // New lines, none an event: still the quiet hour of a timer.
    appendFile(audit, syscallLine(BASE_TIME + 1) + "\n");
    EXPECT_EQ(runConvert({"-q", "--checkpoint", checkpoint, audit}).exitCode, 0);
    // Without a checkpoint a file without events is still worth a word.
    EXPECT_EQ(runConvert({"-q", dir.file("audit")}, "").exitCode, 0);
    writeFile(dir.file("none"), syscallLine(BASE_TIME) + "\n");
    EXPECT_EQ(runConvert({"-q", dir.file("none")}).exitCode, 1);
}

// 7. Inputs without identity, and a file named twice.

TEST(ConvertFailureTest, FifoWithCheckpointIsRefusedBeforeAnythingIsRead) {
    TempDir dir;
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    writeFile(dir.file("audit"), auditLines(3));
    // No writer ever opens the FIFO: the command must not wait for one.
    const CommandResult result =
        runConvert({"-q", "--checkpoint", dir.file("cp"), dir.file("audit"), fifo});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText, PROGRAM + fifo +
                                     ": not a regular file: --checkpoint cannot record where a "
                                     "pipe or device stopped\n");
    EXPECT_FALSE(fileExists(dir.file("cp")));
}

TEST(ConvertFailureTest, PipeByAnyNameWithCheckpointIsRefused) {
    TempDir dir;
    writeFile(dir.file("audit"), auditLines(3));
    const CommandResult result =
        runCommand("/bin/sh",
                   {"-c", "cat \"$1\" | \"$0\" -q --checkpoint \"$2\" /dev/stdin", QLC_CONVERT_PATH,
                    dir.file("audit"), dir.file("cp")},
                   "", {{"TZ", "UTC"}});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stdoutText, "");
    EXPECT_EQ(result.stderrText, PROGRAM +
                                     "/dev/stdin: not a regular file: --checkpoint cannot record "
                                     "where a pipe or device stopped\n");
    EXPECT_FALSE(fileExists(dir.file("cp")));
}

TEST(ConvertFailureTest, SameFileNamedTwiceIsConvertedOnceWithANote) {
    TempDir dir;
    const std::string audit = dir.file("audit.log");
    writeFile(audit, auditLines(20000));
    ASSERT_EQ(link(audit.c_str(), dir.file("audit.log.1").c_str()), 0);
    const std::string once = runConvert({"-q", audit}).stdoutText;
    const CommandResult result =
        runConvert({"-q", "--checkpoint", dir.file("cp"), audit, dir.file("audit.log.1"), audit});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, once);
    EXPECT_EQ(result.stderrText, PROGRAM + dir.file("audit.log.1") +
                                     ": named twice (same device and inode), converted once\n" +
                                     PROGRAM + audit +
                                     ": named twice (same device and inode), converted once\n");
    EXPECT_EQ(checkpointEntry(dir.file("cp")).first, fileSize(audit));
}

// 8. The summary counts what reached the output.

TEST(ConvertFailureTest, FullDeviceOutputIsReportedAndNothingCountedAsWritten) {
    TempDir dir;
    writeFile(dir.file("audit"), auditLines(20000));
    const CommandResult result =
        runCommand("/bin/sh",
                   {"-c", "exec \"$0\" \"$@\" > /dev/full", QLC_CONVERT_PATH, "--checkpoint",
                    dir.file("cp"), dir.file("audit")},
                   "", {{"TZ", "UTC"}});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stderrText.rfind(
                  PROGRAM + "standard output: cannot write: No space left on device\n", 0),
              0u)
        << result.stderrText;
    EXPECT_EQ(summaryValue(result.stderrText, "events written"), 0);
    EXPECT_GT(summaryValue(result.stderrText, "events not written"), 0);
    EXPECT_NE(result.stderrText.find("\noutput failed after 0 lines\n"), std::string::npos)
        << result.stderrText;
    // Nothing reached the output, so nothing may count as converted next time.
    EXPECT_FALSE(fileExists(dir.file("cp")));
}

TEST(ConvertFailureTest, OutputThatFillsUpCountsOnlyTheLinesThatGotOut) {
    TempDir dir;
    writeFile(dir.file("audit"), auditLines(20000));
    const std::string mount = dir.file("small");
    ASSERT_EQ(mkdir(mount.c_str(), 0700), 0);
    const std::string copy = dir.file("out");
    const CommandResult result = runConvertWithTmpfs(
        mount, "size=256k",
        "\"$@\" > \"$M/out\"; status=$?; cp \"$M/out\" '" + copy + "'; exit $status",
        {dir.file("audit")});
    EXPECT_EQ(result.exitCode, 2) << result.stderrText;
    const std::string written = readFile(copy);
    ASSERT_GT(written.size(), 0u);
    long long lines = 0;
    for (const char c : written) {
        lines += c == '\n' ? 1 : 0;
    }
    EXPECT_EQ(summaryValue(result.stderrText, "events written"), lines) << result.stderrText;
    // Reading stops at the failure: what was judged but not written is said.
    EXPECT_EQ(summaryValue(result.stderrText, "events written") +
                  summaryValue(result.stderrText, "events not written"),
              summaryValue(result.stderrText, "lines read"))
        << result.stderrText;
    EXPECT_LT(summaryValue(result.stderrText, "lines read"), 20000);
    EXPECT_NE(result.stderrText.find("\noutput failed after " + std::to_string(lines) + " lines\n"),
              std::string::npos)
        << result.stderrText;
}

// 9. Event logs written under another time zone.

TEST(ConvertFailureTest, EventLogsOfAnotherTimeZoneAreSaidToMatchNothing) {
    TempDir dir;
    const std::string audit = dir.file("audit");
    // Five and a half hours: longer than the zones are apart.
    writeFile(audit, auditLines(20000));
    writeFile(dir.file("events"), runConvert({"-q", audit}).stdoutText);
    const CommandResult elsewhere = runConvert({"-q", "--reconcile", dir.file("events"), audit}, "",
                                               {{"TZ", "America/New_York"}});
    EXPECT_EQ(elsewhere.exitCode, 4);
    EXPECT_EQ(elsewhere.stderrText,
              PROGRAM +
                  "--reconcile: none of the 20000 events matched an event log line, although "
                  "the event logs hold events of the same time; were they written under another "
                  "TZ or on another host? Reconcile under the writer's TZ (see "
                  "qirn-log-convert(1))\n");
    EXPECT_EQ(splitLines(elsewhere.stdoutText).size(), 20000u);
    // Under the writer's zone every event is found.
    const CommandResult here = runConvert({"-q", "--reconcile", dir.file("events"), audit});
    EXPECT_EQ(here.exitCode, 0);
    EXPECT_EQ(here.stdoutText, "");
    EXPECT_EQ(here.stderrText, "");
}

TEST(ConvertFailureTest, EventLogsOfOtherTimesAreNoMismatch) {
    TempDir dir;
    // The service was down while these were logged; its event log holds
    // only events of the day before.
    writeFile(dir.file("before"), auditLines(100, BASE_TIME - 86400));
    writeFile(dir.file("events"), runConvert({"-q", dir.file("before")}).stdoutText);
    writeFile(dir.file("audit"), auditLines(100));
    const CommandResult result =
        runConvert({"-q", "--reconcile", dir.file("events"), dir.file("audit")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stderrText, "");
    EXPECT_EQ(splitLines(result.stdoutText).size(), 100u);
}
