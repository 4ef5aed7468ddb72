#pragma once
// rsyslog's omprog protocol with message confirmation, over the event store:
// one line in per received message ("SENDER LINE"), one answer out, and
// the answer "OK" only once the store has committed the line. Anything else
// makes rsyslog keep the message and offer it again later. In a transaction
// (begin and commit marks) the lines are held and stored together, in one
// database transaction, when the commit mark comes; the answer to that mark
// is the batch's.

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "loader/EventStore.h"

class OmprogLoader {
public:
    static constexpr std::string_view CONFIRMED = "OK";
    static constexpr std::string_view DEFERRED = "DEFER_COMMIT";
    static constexpr std::string_view BEGIN_MARK = "BEGIN TRANSACTION";
    static constexpr std::string_view COMMIT_MARK = "COMMIT TRANSACTION";

    struct Counts {
        std::uint64_t stored = 0;
        std::uint64_t duplicates = 0;
        std::uint64_t unparsed = 0;
        std::uint64_t refusals = 0;
    };

    OmprogLoader(EventStore& store, std::istream& in, std::ostream& out, std::ostream& diagnostics);

    // Answers until the input ends (rsyslog closes it to stop the program).
    void run();

    const Counts& counts() const { return counts_; }

private:
    void answer(std::string_view text);
    void handle(const std::string& message);
    void commitBatch();
    bool storeLine(std::string_view message);
    void count(EventStore::Outcome outcome);
    void refuse();

    EventStore& store_;
    std::istream& in_;
    std::ostream& out_;
    std::ostream& diagnostics_;
    bool inTransaction_ = false;
    std::vector<std::string> batch_;
    std::vector<EventStore::Outcome> outcomes_;
    bool failing_ = false;
    Counts counts_;
};
