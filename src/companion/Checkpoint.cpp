#include "companion/Checkpoint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "companion/Descriptor.h"

namespace {

constexpr const char* HEADER = "# qirn-log-convert checkpoint: device inode offset next-line name";

}  // namespace

Checkpoint::Checkpoint(const std::string& path) : path_(path) {}

bool Checkpoint::load() {
    std::ifstream in(path_);
    if (!in.is_open()) {
        if (errno == ENOENT) {
            return true;
        }
        error_ = path_ + ": cannot open checkpoint: " + std::strerror(errno);
        return false;
    }
    std::string text;
    while (std::getline(in, text)) {
        if (text.empty() || text[0] == '#') {
            continue;
        }
        std::istringstream fields(text);
        Entry entry;
        if (!(fields >> entry.device >> entry.inode >> entry.offset >> entry.nextLine) ||
            entry.offset < 0 || entry.nextLine == 0) {
            error_ = path_ + ": malformed checkpoint line: " + text;
            return false;
        }
        fields >> std::ws;
        std::getline(fields, entry.name);
        loaded_.push_back(entry);
    }
    return true;
}

const Checkpoint::Entry* Checkpoint::find(uint64_t device, uint64_t inode) const {
    for (const Entry& entry : loaded_) {
        if (entry.device == device && entry.inode == inode) {
            return &entry;
        }
    }
    return nullptr;
}

void Checkpoint::record(const Entry& entry) {
    for (Entry& existing : recorded_) {
        if (existing.device == entry.device && existing.inode == entry.inode) {
            existing = entry;
            return;
        }
    }
    recorded_.push_back(entry);
}

bool Checkpoint::checkWritable() {
    struct stat info {};
    if (stat(path_.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        error_ = path_ + ": cannot write checkpoint: " + std::strerror(EISDIR);
        return false;
    }
    const std::string temporary = temporaryPath();
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error_ = temporary + ": cannot write checkpoint: " + std::strerror(errno);
        return false;
    }
    close(fd);
    unlink(temporary.c_str());
    return true;
}

bool Checkpoint::save() {
    std::string text = std::string(HEADER) + "\n";
    for (const Entry& entry : recorded_) {
        std::string name = entry.name;
        for (char& c : name) {
            if (c == '\n') {
                c = '?';
            }
        }
        text += std::to_string(entry.device) + " " + std::to_string(entry.inode) + " " +
                std::to_string(entry.offset) + " " + std::to_string(entry.nextLine) + " " + name +
                "\n";
    }
    const std::string temporary = temporaryPath();
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error_ = temporary + ": cannot write checkpoint: " + std::strerror(errno);
        return false;
    }
    int writeError = Descriptor::writeAll(fd, text);
    if (writeError == 0 && fsync(fd) != 0) {
        writeError = errno;
    }
    bool written = writeError == 0;
    if (close(fd) != 0 && written) {
        written = false;
        writeError = errno;
    }
    if (!written) {
        error_ = temporary + ": cannot write checkpoint: " + std::strerror(writeError);
        unlink(temporary.c_str());
        return false;
    }
    if (std::rename(temporary.c_str(), path_.c_str()) != 0) {
        error_ = path_ + ": cannot replace checkpoint: " + std::strerror(errno);
        unlink(temporary.c_str());
        return false;
    }
    return true;
}
