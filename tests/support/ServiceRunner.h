#pragma once
// Runs code or the real service binary inside a private mount namespace, so
// that tests never touch the machine's /var/log or /etc:
//  - /var/log is a bind mount of a fresh temporary directory;
//  - /etc is an overlay whose upper layer is private to the test, with an
//    opaque /etc/qirn, so the machine's own configuration is never seen.
// The test reads and writes the same files through host paths.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"

namespace testing_support {

// Empty when this process can make the private mount namespace the service
// and runInPrivateRoot need (a new mount namespace, tmpfs and overlay mounts,
// trusted.* attributes: root, in practice); otherwise what failed. Probed once.
std::string privateMountsMissing();

// Skips the current test, saying why, when privateMountsMissing() is not
// empty: an unprivileged package build, for one, cannot run these tests.
#define QLC_SKIP_WITHOUT_PRIVATE_MOUNTS()                                             \
    do {                                                                              \
        const std::string qlcMountsMissing = testing_support::privateMountsMissing(); \
        if (!qlcMountsMissing.empty()) {                                              \
            GTEST_SKIP() << "needs a private mount namespace: " << qlcMountsMissing;  \
        }                                                                             \
    } while (false)

struct ServiceOptions {
    std::vector<std::string> args;  // positional arguments after the program name
    std::string tz = "UTC";
    bool hideVarLog = false;      // /var/log does not exist at all
    bool readOnlyVarLog = false;  // /var/log is mounted read-only
    std::string binary = QLC_BINARY_PATH;
    std::map<std::string, std::string> extraEnv;
};

class ServiceRunner {
public:
    ServiceRunner();
    ~ServiceRunner();
    ServiceRunner(const ServiceRunner&) = delete;
    ServiceRunner& operator=(const ServiceRunner&) = delete;

    // Host path of /var/log/<name> as the service sees it.
    std::string varLog(const std::string& name) const;
    std::string inputPath() const { return varLog("qirn_audit.log"); }
    std::string outputPath() const { return varLog("zarvo_container.log"); }
    std::string diagPath() const { return varLog("qirn-log-converter.log"); }
    // Host path of /etc/qirn/<name> as the service sees it.
    std::string etcQirn(const std::string& name) const;
    void writeConfig(const std::string& content);

    void start(const ServiceOptions& options = ServiceOptions());
    pid_t pid() const { return pid_; }
    bool isRunning();
    void sendSignal(int signum);
    // Stops every thread of the service (SIGSTOP) and waits until they are
    // stopped, so that files can be changed between two of its polls; resume
    // continues it. False when it did not stop in time.
    bool pause(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void resume();
    // Waits for the process to end; false on timeout. `exitCode` gets the exit
    // status, or 128 + signal number when it was killed by a signal.
    bool waitForExit(std::chrono::milliseconds timeout, int* exitCode);
    // SIGTERM and wait; returns the exit code (-1 if it did not end in time).
    int stop(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    std::string stdoutText() const;
    std::string stderrText() const;
    std::vector<std::string> diagLines() const;     // raw diagnostic log lines
    std::vector<std::string> diagMessages() const;  // the same without timestamps
    // Polls the diagnostic log until a line contains `part` (count times).
    bool waitForDiag(const std::string& part, std::chrono::milliseconds timeout, int count = 1);
    bool waitForStdout(const std::string& part, std::chrono::milliseconds timeout);
    bool waitForOutputLines(size_t count, std::chrono::milliseconds timeout);
    // Waits until the service reports it is following its input.
    bool waitUntilMonitoring(std::chrono::milliseconds timeout = std::chrono::seconds(10));

    const std::string& root() const { return dir_.path(); }

private:
    TempDir dir_;
    pid_t pid_ = -1;
    bool reaped_ = true;
    int exitCode_ = -1;
};

struct PrivateRootResult {
    int exitCode = -1;
    std::string stdoutText;
    std::string stderrText;
};

// Runs `body` in a forked child whose root directory is a throw-away overlay
// of the machine's root, so that it may create files at absolute paths.
// Returns the child's exit code (the body's result) and its console output.
PrivateRootResult runInPrivateRoot(const std::function<int()>& body);

}  // namespace testing_support
