#include "agent/ChangeWatch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstdint>

namespace {

constexpr uint32_t FILE_EVENTS = IN_MODIFY | IN_MOVE_SELF | IN_DELETE_SELF | IN_ATTRIB;
constexpr uint32_t DIRECTORY_EVENTS = IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

std::string directoryOf(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

ChangeWatch::ChangeWatch()
    : inotifyFd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

ChangeWatch::~ChangeWatch() {
    if (inotifyFd_ >= 0) {
        close(inotifyFd_);
    }
    if (wakeFd_ >= 0) {
        close(wakeFd_);
    }
}

// A watch on an inode already watched only renews it, so this is cheap to
// repeat; a path that does not exist yet is simply not watched, and the
// caller's timeout finds it.
void ChangeWatch::watch(const std::string& path) {
    if (inotifyFd_ < 0) {
        return;
    }
    inotify_add_watch(inotifyFd_, path.c_str(), FILE_EVENTS);
    inotify_add_watch(inotifyFd_, directoryOf(path).c_str(), DIRECTORY_EVENTS);
}

void ChangeWatch::drain(int fd) {
    alignas(struct inotify_event) char buffer[4096];
    while (fd >= 0 && read(fd, buffer, sizeof buffer) > 0) {
    }
}

void ChangeWatch::wait(std::chrono::milliseconds timeout, bool changes) {
    struct pollfd fds[2] = {{changes ? inotifyFd_ : -1, POLLIN, 0}, {wakeFd_, POLLIN, 0}};
    const auto millis = timeout.count() < 0 ? 0 : timeout.count();
    if (poll(fds, 2, static_cast<int>(millis)) > 0) {
        drain(inotifyFd_);
        drain(wakeFd_);
    }
}

void ChangeWatch::wake() {
    const uint64_t one = 1;
    if (wakeFd_ >= 0) {
        const ssize_t written = write(wakeFd_, &one, sizeof one);
        (void)written;
    }
}
