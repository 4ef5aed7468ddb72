#include "companion/InputStream.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>
#include <vector>

namespace {

constexpr std::string_view COMPRESSED_SUFFIX = ".gz";
constexpr std::size_t SKIP_CHUNK = 1 << 20;
// zlib reads unsigned int sized pieces.
constexpr std::size_t MAX_GZ_READ = 1u << 30;
// zlib's own input buffer: large reads, as for a plain file.
constexpr unsigned GZ_BUFFER_BYTES = 1u << 17;

}  // namespace

InputStream::InputStream(const std::string& name) : name_(name), fd_(-1), gz_(nullptr) {}

InputStream::~InputStream() {
    if (gz_ != nullptr) {
        gzclose(static_cast<gzFile>(gz_));  // closes fd_ as well
    } else if (fd_ > STDIN_FILENO) {
        close(fd_);
    }
}

bool InputStream::isCompressedName(const std::string& name) {
    return name.size() > COMPRESSED_SUFFIX.size() &&
           name.compare(name.size() - COMPRESSED_SUFFIX.size(), COMPRESSED_SUFFIX.size(),
                        COMPRESSED_SUFFIX) == 0;
}

bool InputStream::fail(Status status) {
    status_ = std::move(status);
    return false;
}

bool InputStream::open() {
    if (isStandardInput()) {
        fd_ = STDIN_FILENO;
    } else {
        // Blocking, so that a FIFO is read like any stream once a writer comes.
        fd_ = ::open(name_.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) {
            return fail(Status::systemError(name_ + ": cannot open", errno));
        }
    }
    struct stat info {};
    if (fstat(fd_, &info) != 0) {
        return fail(Status::systemError(name_ + ": cannot stat", errno));
    }
    if (S_ISDIR(info.st_mode)) {
        return fail(Status::systemError(name_ + ": cannot read", EISDIR));
    }
    identity_.regular = S_ISREG(info.st_mode);
    identity_.device = static_cast<uint64_t>(info.st_dev);
    identity_.inode = static_cast<uint64_t>(info.st_ino);
    identity_.size = static_cast<int64_t>(info.st_size);
    if (!isStandardInput() && isCompressedName(name_)) {
        gz_ = gzdopen(fd_, "rb");
        if (gz_ == nullptr) {
            return fail(Status::systemError(name_ + ": cannot start decompression", ENOMEM));
        }
        gzbuffer(static_cast<gzFile>(gz_), GZ_BUFFER_BYTES);
        // zlib would pass anything else through as it is; a ".gz" that is
        // not gzip data is a damaged file, not a plain one.
        if (gzdirect(static_cast<gzFile>(gz_)) != 0) {
            return fail(Status::failure(Status::Code::INVALID,
                                        name_ + ": cannot decompress: not in gzip format"));
        }
    }
    return true;
}

bool InputStream::skipTo(int64_t offset) {
    if (offset <= 0) {
        return true;
    }
    if (gz_ == nullptr && identity_.regular) {
        if (lseek(fd_, static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(-1)) {
            return fail(Status::systemError(name_ + ": cannot seek", errno));
        }
        return true;
    }
    std::vector<char> scratch(SKIP_CHUNK);
    while (offset > 0) {
        const std::size_t want = offset < static_cast<int64_t>(SKIP_CHUNK)
                                     ? static_cast<std::size_t>(offset)
                                     : SKIP_CHUNK;
        const ssize_t got = read(scratch.data(), want);
        if (got <= 0) {
            return got == 0;
        }
        offset -= got;
    }
    return true;
}

ssize_t InputStream::read(char* buffer, std::size_t size) {
    if (gz_ != nullptr) {
        auto* const gz = static_cast<gzFile>(gz_);
        const int got =
            gzread(gz, buffer, static_cast<unsigned>(size < MAX_GZ_READ ? size : MAX_GZ_READ));
        // zlib answers 0 at a clean end and at an early one alike; only its
        // error state tells them apart.
        if (got <= 0 && !decompressionEndedCleanly(got)) {
            return -1;
        }
        return got;
    }
    for (;;) {
        const ssize_t got = ::read(fd_, buffer, size);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            fail(Status::systemError(name_ + ": cannot read", errno));
        }
        return got;
    }
}

bool InputStream::decompressionEndedCleanly(int got) {
    int code = Z_OK;
    const char* text = gzerror(static_cast<gzFile>(gz_), &code);
    if (got == 0 && code == Z_OK) {
        return true;
    }
    if (code == Z_ERRNO) {
        return fail(Status::systemError(name_ + ": cannot read", errno));
    }
    const std::string what = name_ + ": cannot decompress: ";
    if (code == Z_BUF_ERROR) {
        return fail(Status::failure(Status::Code::INVALID,
                                    what + "unexpected end of file (the file is truncated)"));
    }
    return fail(Status::failure(Status::Code::INVALID,
                                what + (text != nullptr && *text != '\0' ? text : "error")));
}
