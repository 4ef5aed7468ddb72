#pragma once
// Test-only view into a LogReader: reads its members and sets destroyed_
// without running the destructor, so the guards can be checked in isolation.

#include <cstdint>

#include "reader/LogReader.h"

class LogReaderTestPeer {
public:
    static int fd(const LogReader& reader) { return reader.fd_; }
    static int64_t position(const LogReader& reader) { return reader.position_; }
    static int64_t lastSize(const LogReader& reader) { return reader.lastSize_; }
    static uint64_t inode(const LogReader& reader) { return reader.inode_; }
    static bool running(const LogReader& reader) { return reader.running_; }
    static bool destroyed(const LogReader& reader) { return reader.destroyed_; }

    static void markDestroyed(LogReader& reader) { reader.destroyed_ = true; }
    // Only for failures that a real file cannot produce (a bad descriptor, an impossible offset).
    static void setFd(LogReader& reader, int fd) { reader.fd_ = fd; }
    static void setPosition(LogReader& reader, int64_t position) { reader.position_ = position; }
};
