// The one write-all loop: every byte out through short writes and signals,
// and the error of a write that fails.

#include "companion/Descriptor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

namespace {

void ignoreAlarm(int) {}

}  // namespace

TEST(DescriptorTest, EverythingArrivesThroughAPipeWhileSignalsInterrupt) {
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    // No SA_RESTART: a blocked write returns early, short or with EINTR.
    struct sigaction action {};
    action.sa_handler = ignoreAlarm;
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGALRM, &action, &previous), 0);
    struct itimerval every {};
    every.it_interval.tv_usec = 1000;
    every.it_value.tv_usec = 1000;
    ASSERT_EQ(setitimer(ITIMER_REAL, &every, nullptr), 0);

    std::string text(8u << 20, 'x');
    for (std::size_t i = 0; i < text.size(); i += 4093) {
        text[i] = static_cast<char>('a' + i % 26);
    }
    std::string received;
    std::thread reader([&] {
        char buffer[4096];
        for (;;) {
            const ssize_t got = read(pipeFds[0], buffer, sizeof buffer);
            if (got > 0) {
                received.append(buffer, static_cast<std::size_t>(got));
            } else if (got == 0 || errno != EINTR) {
                return;
            }
        }
    });
    std::size_t done = 0;
    const int error = Descriptor::writeAll(pipeFds[1], text, done);
    close(pipeFds[1]);
    reader.join();
    struct itimerval off {};
    setitimer(ITIMER_REAL, &off, nullptr);
    sigaction(SIGALRM, &previous, nullptr);
    close(pipeFds[0]);

    EXPECT_EQ(error, 0);
    EXPECT_EQ(done, text.size());
    EXPECT_TRUE(received == text);
}

TEST(DescriptorTest, FailedWriteGivesItsErrorAndHowFarItGot) {
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(full, 0);
    std::size_t done = 7;
    EXPECT_EQ(Descriptor::writeAll(full, "text", done), ENOSPC);
    EXPECT_EQ(done, 0u);
    close(full);
    EXPECT_EQ(Descriptor::writeAll(-1, "text"), EBADF);
}
