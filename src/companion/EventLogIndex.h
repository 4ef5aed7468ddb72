#pragma once
// What reconcile knows of the event logs: the record key of every event line
// they hold, as a digest, and the times those lines carry. Read in full
// before any audit line is judged, so that "missing" is decided against
// complete logs and every event can be written as soon as it is judged.
//
// Digests rather than the keys: 16 bytes a line whatever a path's length,
// where an arena of the keys themselves costs their length. A false match
// needs two different keys with the same 128-bit keyed digest; among a
// million keys that happens once in about 10^26 runs, far below the chance
// of the disk returning a wrong byte.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/Status.h"
#include "companion/DigestSet.h"
#include "companion/KeyDigest.h"

class EventLogIndex {
public:
    // Reads one event log to its end; a failure when it cannot be opened or
    // read to its end (a truncated ".gz" included).
    Status read(const std::string& name);

    // Whether an event with this key is in one of the logs read.
    bool contains(std::string_view containerId, std::string_view path, std::string_view time);

    // Whether a line of the logs carries a local time, as written, between
    // these two instants (seconds since the epoch, read under TZ).
    bool holdsTimeBetween(int64_t from, int64_t to);

    uint64_t events() const { return events_; }
    std::size_t distinctKeys() const { return keys_.size(); }

    // The time text of an event line as a number that orders times within
    // one year ("Nov 15 13:10:05"); false when the text is not such a time.
    static bool timeOrdinal(std::string_view time, uint32_t& ordinal);

private:
    void add(std::string_view line);

    KeyDigest digest_;
    DigestSet keys_;
    // Time ordinals of the lines, in file order until holdsTimeBetween sorts
    // them; runs of one second are kept once.
    std::vector<uint32_t> times_;
    bool timesSorted_ = false;
    uint64_t events_ = 0;
    std::string key_;
};
