#pragma once
// Sleeps until a followed log may have changed, a stop is asked for, or a
// timeout passes. inotify rather than a poll period: a line is picked up as
// it is written, so the commit delay, not a poll interval, bounds how long it
// waits, and an idle agent wakes only for its own timers.

#include <chrono>
#include <string>

class ChangeWatch {
public:
    ChangeWatch();
    ~ChangeWatch();
    ChangeWatch(const ChangeWatch&) = delete;
    ChangeWatch& operator=(const ChangeWatch&) = delete;

    // Watches the file now at `path` for writes and its directory for files
    // coming and going. Again after a rotation: the new file is a new inode.
    void watch(const std::string& path);
    // With `changes` false only a stop or the timeout ends the wait: lines
    // already wait for their commit deadline, and a writer's every append
    // need not wake the agent before it.
    void wait(std::chrono::milliseconds timeout, bool changes = true);
    // Ends the current or the next wait at once; safe in a signal handler.
    void wake();

private:
    static void drain(int fd);

    int inotifyFd_ = -1;
    int wakeFd_ = -1;
};
