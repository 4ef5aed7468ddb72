#pragma once
// One input of the command: standard input, a plain file, or a file read
// through zlib because its name ends in ".gz". Reads in large blocks.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/Status.h"

class InputStream {
public:
    // What a successful open found out about the file.
    struct Identity {
        bool regular = false;  // a regular file (offsets and checkpoints make sense)
        uint64_t device = 0;
        uint64_t inode = 0;
        int64_t size = 0;
    };

    // The name that stands for standard input.
    static constexpr const char* STANDARD_INPUT = "-";

    // STANDARD_INPUT or a file's name, which is also the one used in messages.
    explicit InputStream(const std::string& name);
    ~InputStream();
    InputStream(const InputStream&) = delete;
    InputStream& operator=(const InputStream&) = delete;

    // False with status() set when the input cannot be read at all.
    bool open();
    const Identity& identity() const { return identity_; }
    // Skips to `offset` bytes of the (decompressed) content; false on failure.
    bool skipTo(int64_t offset);
    // Bytes read into `buffer`, 0 at the end, -1 on an error (see status()).
    // Compressed data that ends early or fails its check is an error.
    ssize_t read(char* buffer, std::size_t size);
    // The failure that ended open(), skipTo() or read(); ok until then.
    const Status& status() const { return status_; }
    const std::string& name() const { return name_; }
    bool isStandardInput() const { return name_ == STANDARD_INPUT; }

    static bool isCompressedName(const std::string& name);

private:
    bool fail(Status status);
    // After a gzread that gave `got` <= 0: true at the real end of the data,
    // false with error() set when the data ended early or is corrupt.
    bool decompressionEndedCleanly(int got);

    std::string name_;
    int fd_;
    void* gz_;  // gzFile, kept opaque so that zlib stays out of this header
    Identity identity_;
    Status status_;
};
