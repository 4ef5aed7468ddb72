#pragma once
// Looks at a running service from outside through /proc: its memory, its open
// descriptors and how far it has read a file. Used by the hostile-input and
// stop-under-load tests and by the soak run.

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace testing_support {

// A "Vm..." figure of /proc/PID/status in KiB (VmRSS, VmHWM), -1 if unreadable.
inline long long procStatusKib(pid_t pid, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    const std::string prefix = field + ":";
    while (std::getline(status, line)) {
        if (line.compare(0, prefix.size(), prefix) == 0) {
            return std::stoll(line.substr(prefix.size()));
        }
    }
    return -1;
}

struct OpenDescriptor {
    int fd = -1;
    std::string target;  // what /proc/PID/fd/N links to, as the process sees it
};

inline std::vector<OpenDescriptor> openDescriptors(pid_t pid) {
    std::vector<OpenDescriptor> result;
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr) {
        return result;
    }
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        char target[4096];
        const ssize_t length =
            readlink((directory + "/" + name).c_str(), target, sizeof(target) - 1);
        if (length < 0) {
            continue;
        }
        result.push_back({std::stoi(name), std::string(target, static_cast<size_t>(length))});
    }
    closedir(dir);
    return result;
}

// File offset of the process's descriptor on `target` (the path as the
// process sees it, e.g. "/var/log/qirn_audit.log"); -1 when it has none open.
// The reader seeks to its position and reads to the end of what it takes, so
// the offset tells how far it has read.
inline long long readOffset(pid_t pid, const std::string& target) {
    for (const OpenDescriptor& descriptor : openDescriptors(pid)) {
        if (descriptor.target != target) {
            continue;
        }
        std::ifstream info("/proc/" + std::to_string(pid) + "/fdinfo/" +
                           std::to_string(descriptor.fd));
        std::string line;
        while (std::getline(info, line)) {
            if (line.compare(0, 4, "pos:") == 0) {
                return std::stoll(line.substr(4));
            }
        }
    }
    return -1;
}

}  // namespace testing_support
