#pragma once
// Which file a read position belongs to, in a way that survives inode reuse:
// "<dev>:<inode>:<n>:<hex sha-256 of the first n bytes>", n = min(64, size)
// when the key is made. A file is the key's file when device and inode match
// and its first n bytes hash the same.

#include <sys/types.h>

#include <string>

#include "common/Status.h"

class FileKey {
public:
    static constexpr off_t MAX_PREFIX = 64;

    // The key of the open file `fd` as it is now. INVALID when it is empty.
    static Status make(int fd, FileKey& key);
    // Reads a key's text back; false when it is not one.
    static bool parse(const std::string& text, FileKey& key);

    // Whether the open file `fd` is this key's file.
    bool matches(int fd) const;
    std::string text() const;

    dev_t device = 0;
    ino_t inode = 0;
    off_t prefixLength = 0;
    std::string prefixDigest;
};
