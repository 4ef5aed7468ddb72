#include "agent/FileKey.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "agent/Sha256.h"

namespace {

// The digest of the first `length` bytes of `fd`; false when fewer are there.
bool digestOfPrefix(int fd, off_t length, std::string& digest) {
    char prefix[FileKey::MAX_PREFIX];
    off_t done = 0;
    while (done < length) {
        const ssize_t got = pread(fd, prefix + done, static_cast<std::size_t>(length - done), done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;
        }
        done += got;
    }
    digest = Sha256::hex(std::string_view(prefix, static_cast<std::size_t>(length)));
    return true;
}

bool parseNumber(const std::string& text, std::size_t& at, unsigned long long& value) {
    const std::size_t colon = text.find(':', at);
    if (colon == std::string::npos || colon == at) {
        return false;
    }
    for (std::size_t i = at; i < colon; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
    }
    value = std::strtoull(text.c_str() + at, nullptr, 10);
    at = colon + 1;
    return true;
}

}  // namespace

Status FileKey::make(int fd, FileKey& key) {
    struct stat info {};
    if (fstat(fd, &info) != 0) {
        return Status::systemError("cannot stat the open file", errno);
    }
    if (info.st_size == 0) {
        return Status::failure(Status::Code::INVALID, "an empty file has no key yet");
    }
    key.device = info.st_dev;
    key.inode = info.st_ino;
    key.prefixLength = info.st_size < MAX_PREFIX ? info.st_size : MAX_PREFIX;
    if (!digestOfPrefix(fd, key.prefixLength, key.prefixDigest)) {
        return Status::systemError("cannot read the start of the open file", errno);
    }
    return Status::success();
}

bool FileKey::parse(const std::string& text, FileKey& key) {
    std::size_t at = 0;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    unsigned long long length = 0;
    if (!parseNumber(text, at, device) || !parseNumber(text, at, inode) ||
        !parseNumber(text, at, length) || length == 0 || length > MAX_PREFIX ||
        text.size() - at != 64) {
        return false;
    }
    key.device = static_cast<dev_t>(device);
    key.inode = static_cast<ino_t>(inode);
    key.prefixLength = static_cast<off_t>(length);
    key.prefixDigest = text.substr(at);
    return true;
}

bool FileKey::matches(int fd) const {
    struct stat info {};
    if (fstat(fd, &info) != 0 || info.st_dev != device || info.st_ino != inode ||
        info.st_size < prefixLength) {
        return false;
    }
    std::string digest;
    return digestOfPrefix(fd, prefixLength, digest) && digest == prefixDigest;
}

std::string FileKey::text() const {
    return std::to_string(static_cast<unsigned long long>(device)) + ":" +
           std::to_string(static_cast<unsigned long long>(inode)) + ":" +
           std::to_string(static_cast<long long>(prefixLength)) + ":" + prefixDigest;
}
