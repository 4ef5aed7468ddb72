// The built command on real files: inputs, options, exit statuses, the
// checkpoint, reconciliation and JSON read back by a real JSON parser.

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/CommandRunner.h"
#include "support/TestSupport.h"

using namespace testing_support;

namespace {

std::string avcLine(const std::string& stamp, const std::string& path,
                    const std::string& container = "3f2a9c") {
    return "type=QIRN_AVC msg=audit(" + stamp + "): avc:  denied  { write } for  pid=1 name=\"" +
           path + "\" container_id=" + container;
}

std::string eventLine(const std::string& time, const std::string& path,
                      const std::string& container = "3f2a9c") {
    return time + ",container_id=" + container + ",Event=filectl,path=" + path +
           ",status=enforcing";
}

const std::string SYSCALL = "type=SYSCALL msg=audit(1731676205.100:1): arch=c000003e";

}  // namespace

TEST(ConvertCommandTest, FilesAreReadInOrderAndCompressedOnesThroughZlib) {
    TempDir dir;
    writeFile(dir.file("a.log.1"), avcLine("1731676205.000:1", "/a") + "\n");
    writeFile(dir.file("plain"), avcLine("1731676206.000:2", "/b") + "\n");
    ASSERT_EQ(std::system(("gzip -c " + dir.file("plain") + " > " + dir.file("b.gz")).c_str()), 0);
    const CommandResult result = runConvert({"-q", dir.file("a.log.1"), dir.file("b.gz")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 13:10:05", "/a") + "\n" +
                                     eventLine("Nov 15 13:10:06", "/b") + "\n");
}

TEST(ConvertCommandTest, StandardInputIsReadWithoutFileOrWithDash) {
    TempDir dir;
    writeFile(dir.file("in"), avcLine("1731676205.000:1", "/a") + "\n");
    EXPECT_EQ(runConvert({"-q"}, dir.file("in")).stdoutText,
              eventLine("Nov 15 13:10:05", "/a") + "\n");
    EXPECT_EQ(runConvert({"-q", "-"}, dir.file("in")).stdoutText,
              eventLine("Nov 15 13:10:05", "/a") + "\n");
}

TEST(ConvertCommandTest, TimeZoneIsHonoured) {
    TempDir dir;
    writeFile(dir.file("in"), avcLine("1731676205.000:1", "/a") + "\n");
    const CommandResult result = runConvert({"-q", dir.file("in")}, "", {{"TZ", "Europe/Berlin"}});
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 14:10:05", "/a") + "\n");
}

TEST(ConvertCommandTest, LastLineWithoutNewlineIsConverted) {
    TempDir dir;
    writeFile(dir.file("in"), SYSCALL + "\n" + avcLine("1731676205.000:1", "/a"));
    EXPECT_EQ(runConvert({"-q", dir.file("in")}).stdoutText,
              eventLine("Nov 15 13:10:05", "/a") + "\n");
}

TEST(ConvertCommandTest, NoEventExitsWithOne) {
    TempDir dir;
    writeFile(dir.file("in"), SYSCALL + "\n");
    const CommandResult result = runConvert({dir.file("in")});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.stderrText,
              "lines read      1\n"
              "events written  0\n"
              "lines skipped   1\n"
              "  type          1\n");
}

TEST(ConvertCommandTest, ExplainWithNoEventStillExitsWithZero) {
    TempDir dir;
    writeFile(dir.file("in"), SYSCALL + "\n");
    const CommandResult result = runConvert({"-q", "--explain", dir.file("in")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, dir.file("in") + ":1\tskip\ttype\t\n");
}

TEST(ConvertCommandTest, MissingFileIsReportedAndOthersStillConverted) {
    TempDir dir;
    writeFile(dir.file("in"), avcLine("1731676205.000:1", "/a") + "\n");
    const CommandResult result = runConvert({"-q", dir.file("missing"), dir.file("in")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stderrText, "qirn-log-convert: " + dir.file("missing") +
                                     ": cannot open: No such file or directory\n");
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 13:10:05", "/a") + "\n");
}

TEST(ConvertCommandTest, DirectoryIsAnErrorNotACrash) {
    TempDir dir;
    const CommandResult result = runConvert({"-q", dir.path()});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_EQ(result.stderrText,
              "qirn-log-convert: " + dir.path() + ": cannot read: Is a directory\n");
}

TEST(ConvertCommandTest, FifoIsReadLikeAStream) {
    TempDir dir;
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        FILE* out = std::fopen(fifo.c_str(), "w");
        std::fputs((avcLine("1731676205.000:1", "/a") + "\n").c_str(), out);
        std::fclose(out);
        _exit(0);
    }
    const CommandResult result = runConvert({"-q", fifo});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 13:10:05", "/a") + "\n");
}

TEST(ConvertCommandTest, ArbitraryBytesAndZeroRunsDoNotCrash) {
    TempDir dir;
    std::string bytes(3u << 20, '\0');
    for (std::size_t i = 0; i < bytes.size(); i += 997) {
        bytes[i] = static_cast<char>(i * 31);
    }
    writeFile(dir.file("in"), bytes + "\n" + avcLine("1731676205.000:1", "/a") + "\n");
    const CommandResult result = runConvert({"-q", dir.file("in")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 13:10:05", "/a") + "\n");
}

TEST(ConvertCommandTest, UsageErrorsExitWithTwo) {
    EXPECT_EQ(runConvert({"--explain=some"}).exitCode, 2);
    EXPECT_EQ(runConvert({"--format=xml"}).exitCode, 2);
    EXPECT_EQ(runConvert({"--since", "yesterday"}).exitCode, 2);
    EXPECT_EQ(runConvert({"--no-such-option"}).exitCode, 2);
    const CommandResult dash = runConvert({"--checkpoint", "/tmp/qlc-unused-checkpoint", "-"});
    EXPECT_EQ(dash.exitCode, 2);
    EXPECT_EQ(dash.stderrText,
              "qirn-log-convert: --checkpoint cannot be used with standard input\n"
              "Try 'qirn-log-convert --help' for more information.\n");
}

TEST(ConvertCommandTest, HelpPrintsUsage) {
    const CommandResult result = runConvert({"--help"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText.rfind("Usage: qirn-log-convert [OPTIONS] [FILE...]\n", 0), 0u);
}

TEST(ConvertCommandTest, SinceAndUntilLimitByAuditTime) {
    TempDir dir;
    writeFile(dir.file("in"), avcLine("1731676205.000:1", "/a") + "\n" +
                                  avcLine("1731676210.000:2", "/b") + "\n" +
                                  avcLine("1731676215.000:3", "/c") + "\n");
    const CommandResult result = runConvert(
        {"-q", "--since", "2024-11-15T13:10:06Z", "--until", "1731676214", dir.file("in")});
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 13:10:10", "/b") + "\n");
}

TEST(ConvertCommandTest, ReconcileWritesOnlyEventsMissingFromEventLogs) {
    TempDir dir;
    writeFile(dir.file("audit"), avcLine("1731676205.000:1", "/a") + "\n" +
                                     avcLine("1731676206.000:2", "/b,status=permissive") + "\n" +
                                     avcLine("1731676207.000:3", "/c") + "\n");
    // A path that looks like the end of a line, and a rotated, compressed log.
    writeFile(dir.file("events"),
              eventLine("Nov 15 13:10:06", "/b,status=permissive") + "\nnot an event\n");
    writeFile(dir.file("events.1"), eventLine("Nov 15 13:10:07", "/c") + "\n");
    ASSERT_EQ(std::system(("gzip " + dir.file("events.1")).c_str()), 0);
    const CommandResult result = runConvert({"-q", "--reconcile", dir.file("events"), "--reconcile",
                                             dir.file("events.1.gz"), dir.file("audit")});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 13:10:05", "/a") + "\n");
}

TEST(ConvertCommandTest, ReconcileLeavesOutRecordsNewerThanSettle) {
    TempDir dir;
    const std::string now = std::to_string(time(nullptr));
    writeFile(dir.file("audit"),
              avcLine("1731676205.000:1", "/old") + "\n" + avcLine(now + ".000:2", "/new") + "\n");
    writeFile(dir.file("events"), "");
    const CommandResult result =
        runConvert({"--explain", "-q", "--reconcile", dir.file("events"), dir.file("audit")});
    EXPECT_EQ(result.stdoutText,
              dir.file("audit") + ":2\tskip\tout-of-range\taudit time " + now + "\n");
}

TEST(ConvertCommandTest, CheckpointConvertsEachLineOnceAcrossAppends) {
    TempDir dir;
    const std::string audit = dir.file("audit");
    const std::string checkpoint = dir.file("checkpoint");
    writeFile(audit, avcLine("1731676205.000:1", "/a") + "\n" + avcLine("1731676206.000:2", "/b"));
    EXPECT_EQ(runConvert({"-q", "--checkpoint", checkpoint, audit}).stdoutText,
              eventLine("Nov 15 13:10:05", "/a") + "\n");
    appendFile(audit, "\n" + avcLine("1731676207.000:3", "/c") + "\n");
    EXPECT_EQ(
        runConvert({"-q", "--checkpoint", checkpoint, audit}).stdoutText,
        eventLine("Nov 15 13:10:06", "/b") + "\n" + eventLine("Nov 15 13:10:07", "/c") + "\n");
    const CommandResult third = runConvert({"-q", "--checkpoint", checkpoint, audit});
    EXPECT_EQ(third.stdoutText, "");
    EXPECT_EQ(third.exitCode, 0);
}

TEST(ConvertCommandTest, CheckpointFollowsRenameAndStartsNewInodeAtItsBeginning) {
    TempDir dir;
    const std::string audit = dir.file("qirn_audit.log");
    const std::string rotated = dir.file("qirn_audit.log.1");
    const std::string checkpoint = dir.file("checkpoint");
    writeFile(audit, avcLine("1731676205.000:1", "/a") + "\n");
    runConvert({"-q", "--checkpoint", checkpoint, audit});
    appendFile(audit, avcLine("1731676206.000:2", "/b") + "\n");
    ASSERT_EQ(std::rename(audit.c_str(), rotated.c_str()), 0);
    writeFile(audit, avcLine("1731676207.000:3", "/c") + "\n");
    const CommandResult result = runConvert({"-q", "--checkpoint", checkpoint, rotated, audit});
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 13:10:06", "/b") + "\n" +
                                     eventLine("Nov 15 13:10:07", "/c") + "\n");
}

TEST(ConvertCommandTest, CheckpointOfTruncatedFileStartsAtItsBeginningAndSaysSo) {
    TempDir dir;
    const std::string audit = dir.file("audit");
    const std::string checkpoint = dir.file("checkpoint");
    writeFile(audit,
              avcLine("1731676205.000:1", "/a") + "\n" + avcLine("1731676206.000:2", "/b") + "\n");
    runConvert({"-q", "--checkpoint", checkpoint, audit});
    ASSERT_EQ(truncate(audit.c_str(), 0), 0);
    appendFile(audit, avcLine("1731676207.000:3", "/c") + "\n");
    const CommandResult result = runConvert({"-q", "--checkpoint", checkpoint, audit});
    EXPECT_EQ(result.stdoutText, eventLine("Nov 15 13:10:07", "/c") + "\n");
    EXPECT_NE(result.stderrText.find(audit + ": shorter than its checkpoint"), std::string::npos)
        << result.stderrText;
}

TEST(ConvertCommandTest, CheckpointStopsBeforeFirstRecordPastUntil) {
    TempDir dir;
    const std::string audit = dir.file("audit");
    const std::string checkpoint = dir.file("checkpoint");
    writeFile(audit, avcLine("1731676205.000:1", "/a") + "\n" +
                         avcLine("1731676300.000:2", "/late") + "\n" +
                         avcLine("1731676206.000:3", "/b") + "\n");
    EXPECT_EQ(
        runConvert({"-q", "--until", "1731676299", "--checkpoint", checkpoint, audit}).stdoutText,
        eventLine("Nov 15 13:10:05", "/a") + "\n");
    EXPECT_EQ(
        runConvert({"-q", "--checkpoint", checkpoint, audit}).stdoutText,
        eventLine("Nov 15 13:11:40", "/late") + "\n" + eventLine("Nov 15 13:10:06", "/b") + "\n");
}

TEST(ConvertCommandTest, JsonIsValidForAnyBytes) {
    TempDir dir;
    const std::vector<std::string> paths = {
        "/plain",
        "/bad\xff\xfe",
        "/overlong\xc0\xaf",
        "/surrogate\xed\xa0\x80",
        "/ctl\x01\x1f\x7f",
        "/quote\"back\\",
        "/ok\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
        "/cut\xe2\x82",
    };
    std::string input;
    int second = 0;
    for (const std::string& path : paths) {
        input += "type=QIRN_AVC msg=audit(17316762" + std::to_string(10 + second++) +
                 ".000:7): avc:  denied  { write } name=" + path + " container_id=c\xff" + "1\n";
    }
    writeFile(dir.file("in"), input);
    writeFile(dir.file("check.py"),
              "import json, sys\n"
              "rows = [json.loads(line) for line in open(sys.argv[1], encoding='utf-8')]\n"
              "assert len(rows) == 8, len(rows)\n"
              "for row in rows:\n"
              "    assert row['container_id'] == 'c\\ufffd1', row\n"
              "    assert row['container_id_hex'] == '63ff31', row\n"
              "    raw = bytes.fromhex(row['path_hex']) if 'path_hex' in row else None\n"
              "    assert raw is None or raw.decode('utf-8', 'replace') != '', row\n"
              "assert rows[0]['path'] == '/plain' and 'path_hex' not in rows[0]\n"
              "assert rows[1]['path_hex'] == '2f626164fffe'\n"
              "assert rows[2]['path'] == '/overlong\\ufffd\\ufffd'\n"
              "assert rows[3]['path'] == '/surrogate\\ufffd\\ufffd\\ufffd'\n"
              "assert rows[4]['path'] == '/ctl\\x01\\x1f\\x7f' and 'path_hex' not in rows[4]\n"
              "assert rows[5]['path'] == '/quote\"back\\\\'\n"
              "assert rows[6]['path'] == '/ok\\u00e9\\u20ac\\U0001f600'\n"
              "assert rows[7]['path'] == '/cut\\ufffd\\ufffd'\n"
              "assert rows[0]['event'] == 'filectl' and rows[0]['status'] == 'enforcing'\n"
              "assert rows[0]['audit_seconds'] == 1731676210 and rows[0]['serial'] == 7\n"
              "assert rows[0]['time'] == 'Nov 15 13:10:10'\n"
              "print('ok')\n");
    const CommandResult result = runConvert({"-q", "--format=json", dir.file("in")});
    ASSERT_EQ(result.exitCode, 0);
    writeFile(dir.file("out.json"), result.stdoutText);
    const CommandResult check =
        runCommand("/usr/bin/python3", {dir.file("check.py"), dir.file("out.json")});
    EXPECT_EQ(check.exitCode, 0) << check.stderrText << result.stdoutText;
    EXPECT_EQ(check.stdoutText, "ok\n");
}
