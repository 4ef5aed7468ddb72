#pragma once
// The seam between the agent's decisions and the store: the four calls a host
// may make, each its own transaction. Failures come back as a Status whose
// code says what the agent does next: CONFLICT (the position moved), BUSY
// (another agent holds the lease), REFUSED (host not enrolled or retired),
// UNAVAILABLE or anything else (back off and retry).

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/Status.h"

class StoreSession {
public:
    // The committed read position of one stream.
    struct Position {
        bool present = false;
        std::string fileKey;
        int64_t fileOffset = 0;
    };

    // One ship call: the lines of [expected position, end offset) and the
    // move of the position, stored by one COMMIT or not at all. The views
    // point into the caller's buffer and live until the call returns.
    struct Batch {
        std::string stream;
        std::string expectedFile;
        int64_t expectedOffset = 0;
        std::string fileKey;
        int64_t endOffset = 0;
        std::vector<std::string_view> lines;
        std::vector<std::string_view> unparsedLines;
        std::vector<std::string_view> unparsedReasons;
    };

    struct Shipped {
        Status status;
        int64_t stored = 0;
        int64_t duplicates = 0;
        int64_t unparsed = 0;
    };

    struct Heartbeat {
        int heartbeatSeconds = 0;
        int64_t lagBytes = 0;
        double lagSeconds = 0;
    };

    virtual ~StoreSession() = default;

    virtual Status position(const std::string& stream, Position& position) = 0;
    // Ships the batches in order, each in its own transaction; one reply per
    // batch. A batch expects the position the one before it ends at, so when
    // one fails every later one fails with CONFLICT and nothing of it is kept.
    virtual void ship(const std::vector<Batch>& batches, std::vector<Shipped>& replies) = 0;
    virtual Status heartbeat(const Heartbeat& heartbeat) = 0;
    virtual Status release() = 0;
    // Nothing shipped for a heartbeat: a session may let its connection go,
    // and the memory a burst's batches left in it, until the next call.
    virtual void rest() {}
    // Whether the last call reached the store.
    virtual bool connected() const = 0;
};
