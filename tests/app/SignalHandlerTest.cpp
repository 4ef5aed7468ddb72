// The shutdown signal handler leaves errno as it found it: the code it
// interrupted may be about to read errno, as the resuming sleep does to tell
// EINTR from a failure. Runs in a child whose console writes fail, so that the
// handler's own output sets errno to something else on the way.

#include "app/SignalHandler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>

#include "common/Sleep.h"

namespace {

enum ChildResult { OK = 0, ERRNO_CHANGED = 1, SLEEP_SHORTENED = 2, SETUP_FAILED = 3 };

// Runs `body` in a child with standard output and error on /dev/full and the
// handler installed for SIGTERM, as the service installs it.
int runInChild(int (*body)()) {
    const pid_t child = fork();
    if (child == 0) {
        const int full = open("/dev/full", O_WRONLY);
        if (full < 0 || dup2(full, STDOUT_FILENO) < 0 || dup2(full, STDERR_FILENO) < 0) {
            _exit(SETUP_FAILED);
        }
        if (signal(SIGTERM, signalHandler) == SIG_ERR) {
            _exit(SETUP_FAILED);
        }
        _exit(body());
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return -1;
    }
    return WEXITSTATUS(status);
}

TEST(SignalHandlerTest, HandlerLeavesErrnoAsItFoundIt) {
    EXPECT_EQ(OK, runInChild([] {
                  errno = E2BIG;
                  if (raise(SIGTERM) != 0) {
                      return static_cast<int>(SETUP_FAILED);
                  }
                  return static_cast<int>(errno == E2BIG ? OK : ERRNO_CHANGED);
              }));
}

// The whole path as the service meets it: the handler runs in the middle of a
// sleep of the status loop, which still lasts its full length.
TEST(SignalHandlerTest, SleepInterruptedByTheHandlerResumesForItsWholeLength) {
    EXPECT_EQ(
        OK, runInChild([] {
            // SIGTERM 100 ms into a one-second sleep.
            sigevent event{};
            event.sigev_notify = SIGEV_SIGNAL;
            event.sigev_signo = SIGTERM;
            timer_t timer{};
            const itimerspec after100ms{{0, 0}, {0, 100000000}};
            if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
                timer_settime(timer, 0, &after100ms, nullptr) != 0) {
                return static_cast<int>(SETUP_FAILED);
            }
            const auto start = std::chrono::steady_clock::now();
            sleepResuming(std::chrono::seconds(1));
            const auto elapsed = std::chrono::steady_clock::now() - start;
            return static_cast<int>(elapsed >= std::chrono::seconds(1) ? OK : SLEEP_SHORTENED);
        }));
}

}  // namespace
