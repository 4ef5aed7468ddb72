#include "companion/Checkpoint.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "companion/Descriptor.h"

namespace {

constexpr const char* HEADER = "# qirn-log-convert checkpoint: device inode offset next-line name";

}  // namespace

Checkpoint::Checkpoint(const std::string& path) : path_(path) {}

std::vector<Status> Checkpoint::checkInputs(const std::vector<std::string>& names) {
    std::vector<Status> failures;
    for (const std::string& name : names) {
        struct stat info {};
        // A missing file is reported when its turn comes, like without a
        // checkpoint; what exists must have a place to resume from.
        if (stat(name.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
            failures.push_back(Status::failure(
                Status::Code::INVALID, name + ": not a regular file: --checkpoint cannot record "
                                              "where a pipe or device stopped"));
        }
    }
    return failures;
}

Status Checkpoint::load() {
    std::ifstream in(path_);
    if (!in.is_open()) {
        if (errno == ENOENT) {
            return Status::success();
        }
        return Status::systemError(path_ + ": cannot open checkpoint", errno);
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
            return Status::failure(Status::Code::INVALID,
                                   path_ + ": malformed checkpoint line: " + text);
        }
        fields >> std::ws;
        std::getline(fields, entry.name);
        loaded_.push_back(entry);
    }
    return Status::success();
}

const Checkpoint::Entry* Checkpoint::find(uint64_t device, uint64_t inode) const {
    for (const Entry& entry : loaded_) {
        if (entry.device == device && entry.inode == inode) {
            return &entry;
        }
    }
    return nullptr;
}

Checkpoint::Entry Checkpoint::resumeOf(const std::string& name, uint64_t device, uint64_t inode,
                                       int64_t size, bool compressed, std::string& note) const {
    Entry resume;
    resume.device = device;
    resume.inode = inode;
    resume.name = name;
    const Entry* const entry = find(device, inode);
    if (entry == nullptr) {
        return resume;
    }
    if (!compressed && size < entry->offset) {
        note = name + ": shorter than its checkpoint (" + std::to_string(size) + " < " +
               std::to_string(entry->offset) + " bytes), converting it from its beginning";
        return resume;
    }
    resume.offset = entry->offset;
    resume.nextLine = entry->nextLine;
    return resume;
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

Status Checkpoint::checkWritable() {
    struct stat info {};
    if (stat(path_.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        return Status::systemError(path_ + ": cannot write checkpoint", EISDIR);
    }
    const std::string temporary = temporaryPath();
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return Status::systemError(temporary + ": cannot write checkpoint", errno);
    }
    close(fd);
    unlink(temporary.c_str());
    return Status::success();
}

Status Checkpoint::save() {
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
        return Status::systemError(temporary + ": cannot write checkpoint", errno);
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
        unlink(temporary.c_str());
        return Status::systemError(temporary + ": cannot write checkpoint", writeError);
    }
    if (std::rename(temporary.c_str(), path_.c_str()) != 0) {
        const int renameError = errno;
        unlink(temporary.c_str());
        return Status::systemError(path_ + ": cannot replace checkpoint", renameError);
    }
    return Status::success();
}
