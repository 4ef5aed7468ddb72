#include "agent/AgentLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr mode_t LOCK_FILE_MODE = 0644;
constexpr std::size_t PID_TEXT_MAX = 32;

// The holder writes its pid just after it locks, so a reader may find the
// file still empty: then the pid is not known.
std::string holderPid(int fd) {
    char text[PID_TEXT_MAX] = {};
    const ssize_t length = pread(fd, text, sizeof text - 1, 0);
    if (length <= 0) {
        return "";
    }
    std::string pid(text, static_cast<std::size_t>(length));
    const std::string::size_type end = pid.find_first_not_of("0123456789");
    return pid.substr(0, end);
}

}  // namespace

AgentLock::~AgentLock() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

Status AgentLock::take(const std::string& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, LOCK_FILE_MODE);
    if (fd < 0) {
        return Status::systemError("cannot open the lock file " + path, errno);
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        if (error != EWOULDBLOCK) {
            close(fd);
            return Status::systemError("cannot lock " + path, error);
        }
        const std::string pid = holderPid(fd);
        close(fd);
        return Status::failure(Status::Code::BUSY, "another qirn-fleet-agent holds " + path +
                                                       (pid.empty() ? " (its pid not yet written)"
                                                                    : " (pid " + pid + ")") +
                                                       ": one agent per machine");
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    errno = 0;
    if (ftruncate(fd, 0) != 0 ||
        pwrite(fd, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        const int error = errno != 0 ? errno : EIO;
        close(fd);
        return Status::systemError("cannot write the pid into " + path, error);
    }
    fd_ = fd;
    return Status::success();
}
