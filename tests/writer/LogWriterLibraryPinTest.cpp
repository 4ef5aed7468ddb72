// The writer puts each line into its stream with calls of its own where the
// plain form is the formatted write of "%s\n" on a line-buffered stream. Here
// the writer's reports for a sequence of lines (written or not, the system
// error text, the file's bytes, the expected size) are pinned against that
// formatted write on the same kind of stream, on healthy and failing devices.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "support/ServiceRunner.h"
#include "support/TestSupport.h"
#include "writer/LogWriter.h"

using namespace testing_support;

class LogWriterTestPeer {
public:
    static int64_t fileSize(const LogWriter& writer) { return writer.fileSize_; }
};

namespace {

const std::string WRITE_ERROR = "[ERROR] Failed to write to file: ";
// Stands for "remove the filler" in a sequence instead of a line.
const std::string CLEAN = "<clean>";

// What one line came to: written, or the system error text.
std::string report(bool written, const std::string& error) {
    return written ? "written" : "failed: " + error;
}

// The plain form: fopen in append mode, line-buffered with the library's own
// buffer, fprintf of "%s\n" and fflush after every line that was written.
class FormattedWrite {
public:
    explicit FormattedWrite(const std::string& path) : file_(std::fopen(path.c_str(), "a")) {
        if (file_ != nullptr) {
            std::setvbuf(file_, nullptr, _IOLBF, 0);  // NOLINT(cert-err33-c)
        }
    }
    ~FormattedWrite() {
        if (file_ != nullptr) {
            std::fclose(file_);  // NOLINT(cert-err33-c)
        }
    }
    FormattedWrite(const FormattedWrite&) = delete;
    FormattedWrite& operator=(const FormattedWrite&) = delete;

    bool isOpen() const { return file_ != nullptr; }

    std::string write(const std::string& line) {
        errno = 0;
        if (std::fprintf(file_, "%s\n", line.c_str()) < 0) {
            return report(false, std::strerror(errno));
        }
        std::fflush(file_);  // NOLINT(cert-err33-c)
        return report(true, "");
    }

private:
    FILE* file_;
};

// The writer's report of one line: its result and the error it logged.
std::string writerReport(LogWriter& writer, const std::string& line, const std::string& diagPath) {
    const std::size_t before = readLines(diagPath).size();
    const bool written = writer.writeLine(line);
    std::string error;
    const std::vector<std::string> lines = stripTimestamps(readLines(diagPath));
    for (std::size_t i = before; i < lines.size(); ++i) {
        if (lines[i].rfind(WRITE_ERROR, 0) == 0) {
            error = lines[i].substr(WRITE_ERROR.size());
        }
    }
    return report(written, error);
}

// Lines that take every path of the writer: short ones (one piece with the
// newline), a repeat, zero bytes inside and at the start, newlines inside and
// at the end, both sides of the copy buffer's size, and longer than a stream
// buffer.
std::vector<std::string> variedLines() {
    return {"first event",
            "second event",
            "first event",
            std::string("ab\0cd", 5),
            std::string("\0xyz", 4),
            "mid\nline",
            "ends in a newline\n",
            std::string(510, 'a'),
            std::string(511, 'b'),
            std::string(512, 'c'),
            std::string(600, 'd') + "\n",
            std::string(5000, 'e'),
            "last"};
}

// Runs `steps` through a writer on `writerPath` and through the formatted
// write on `plainPath`; a CLEAN step removes the two fillers. Prints a line
// per difference and returns how many there were. The expected size is
// checked against the formatted write's count of written bytes only when no
// line held a zero byte (the writer then reloads it from the file).
int compareSequences(const std::vector<std::string>& steps, const std::string& writerPath,
                     const std::string& plainPath, const std::string& diagPath,
                     const std::vector<std::string>& fillers) {
    LogWriter writer(writerPath);
    FormattedWrite plain(plainPath);
    if (!plain.isOpen()) {
        std::cout << "formatted write could not open " << plainPath << "\n";
        return 1;
    }
    int differences = 0;
    int64_t plainSize = LogWriterTestPeer::fileSize(writer);
    bool sizeComparable = true;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (steps[i] == CLEAN) {
            for (const std::string& filler : fillers) {
                unlink(filler.c_str());
            }
            continue;
        }
        const std::string fromWriter = writerReport(writer, steps[i], diagPath);
        const std::string fromPlain = plain.write(steps[i]);
        std::cout << "step " << i << ": " << fromPlain << "\n";
        if (fromWriter != fromPlain) {
            std::cout << "  writer: " << fromWriter << "\n";
            ++differences;
        }
        if (fromPlain == report(true, "")) {
            plainSize += static_cast<int64_t>(steps[i].size()) + 1;
        }
        sizeComparable = sizeComparable && steps[i].find('\0') == std::string::npos;
        if (sizeComparable && LogWriterTestPeer::fileSize(writer) != plainSize) {
            std::cout << "  expected size " << LogWriterTestPeer::fileSize(writer) << ", plain "
                      << plainSize << "\n";
            ++differences;
        }
    }
    if (writerPath != plainPath && readFile(writerPath) != readFile(plainPath)) {
        std::cout << "file contents differ\n";
        ++differences;
    }
    return differences;
}

class LogWriterLibraryPinTest : public ::testing::Test {
protected:
    void SetUp() override { initLogger(diagPath_, false); }

    TempDir dir_;
    std::string diagPath_ = dir_.file("diag.log");
};

TEST_F(LogWriterLibraryPinTest, HealthyFileGetsTheSameBytesAndReports) {
    std::ostringstream out;
    std::streambuf* saved = std::cout.rdbuf(out.rdbuf());
    const int differences = compareSequences(variedLines(), dir_.file("writer.log"),
                                             dir_.file("plain.log"), diagPath_, {});
    std::cout.rdbuf(saved);

    EXPECT_EQ(0, differences) << out.str();
    EXPECT_EQ(readFile(dir_.file("plain.log")), readFile(dir_.file("writer.log")));
}

TEST_F(LogWriterLibraryPinTest, FullDeviceGivesTheSameReportForEveryLine) {
    std::vector<std::string> steps = variedLines();
    const std::vector<std::string> again = variedLines();
    steps.insert(steps.end(), again.begin(), again.end());

    std::ostringstream out;
    std::streambuf* saved = std::cout.rdbuf(out.rdbuf());
    const int differences = compareSequences(steps, "/dev/full", "/dev/full", diagPath_, {});
    std::cout.rdbuf(saved);

    EXPECT_EQ(0, differences) << out.str();
    EXPECT_EQ(static_cast<int>(steps.size()),
              countSubstring(stripTimestamps(readLines(diagPath_)),
                             WRITE_ERROR + "No space left on device"))
        << out.str();
}

TEST_F(LogWriterLibraryPinTest, FileSystemThatFillsAndIsCleanedGivesTheSameReports) {
    // The same sequence on two equal small file systems, each with a filler
    // that leaves one page: short and long lines fill it, fail (one of them
    // in part), and are accepted again once the filler is gone.
    const PrivateRootResult result = runInPrivateRoot([] {
        for (const char* mountPoint : {"/qlc-writer", "/qlc-plain"}) {
            mkdir(mountPoint, 0755);
            if (mount("tmpfs", mountPoint, "tmpfs", 0, "size=8k,mode=0755") != 0) return 2;
            writeFile(std::string(mountPoint) + "/filler", std::string(4096, 'f'));
        }
        initLogger("/qlc-diag.log", false);
        std::vector<std::string> steps;
        for (int i = 0; i < 9; ++i) {
            steps.push_back("event " + std::to_string(i) + " " + std::string(400, 'x'));
        }
        for (const std::string& line : variedLines()) {
            if (line.find('\0') == std::string::npos) {
                steps.push_back(line);
            }
        }
        steps.push_back(CLEAN);
        for (int i = 0; i < 3; ++i) {
            steps.push_back("after cleaning " + std::to_string(i));
        }
        steps.push_back(std::string(5000, 'g'));
        const int differences =
            compareSequences(steps, "/qlc-writer/out.log", "/qlc-plain/out.log", "/qlc-diag.log",
                             {"/qlc-writer/filler", "/qlc-plain/filler"});
        const std::string diagnostics = readFile("/qlc-diag.log");
        // The sequence must have met both a full device and a cleaned one.
        const bool sawFailure = diagnostics.find("No space left on device") != std::string::npos;
        const bool recovered =
            readFile("/qlc-writer/out.log").find("after cleaning 2\n") != std::string::npos;
        std::cout << "failure seen: " << sawFailure << ", recovered: " << recovered << "\n";
        return differences == 0 && sawFailure && recovered ? 0 : 1;
    });

    EXPECT_EQ(0, result.exitCode) << result.stdoutText << result.stderrText;
}

}  // namespace
