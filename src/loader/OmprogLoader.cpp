#include "loader/OmprogLoader.h"

#include <chrono>
#include <istream>
#include <ostream>

#include "common/Sleep.h"

namespace {

// A refused line is answered after this pause: rsyslog may offer it again at
// once, and a store that is away should not be asked hundreds of times a
// second.
constexpr std::chrono::milliseconds REFUSAL_PAUSE{500};

}  // namespace

OmprogLoader::OmprogLoader(EventStore& store, std::istream& in, std::ostream& out,
                           std::ostream& diagnostics)
    : store_(store), in_(in), out_(out), diagnostics_(diagnostics) {}

void OmprogLoader::run() {
    // Ready: rsyslog waits for this before it sends the first message.
    answer(CONFIRMED);
    std::string message;
    while (std::getline(in_, message)) {
        handle(message);
    }
}

void OmprogLoader::answer(std::string_view text) {
    out_ << text << '\n';
    out_.flush();
}

void OmprogLoader::handle(const std::string& message) {
    if (message == BEGIN_MARK) {
        inTransaction_ = true;
        batch_.clear();
        answer(CONFIRMED);
    } else if (message == COMMIT_MARK) {
        inTransaction_ = false;
        commitBatch();
    } else if (inTransaction_) {
        batch_.push_back(message);
        answer(DEFERRED);
    } else if (storeLine(message)) {
        answer(CONFIRMED);
    } else {
        refuse();
    }
}

void OmprogLoader::commitBatch() {
    // rsyslog offers the whole batch again after a refusal, so nothing of it
    // may stay behind: one database transaction for all of it.
    const bool stored = store_.storeBatch(batch_, outcomes_);
    batch_.clear();
    if (!stored) {
        refuse();
        return;
    }
    for (const EventStore::Outcome outcome : outcomes_) {
        count(outcome);
    }
    answer(CONFIRMED);
}

bool OmprogLoader::storeLine(std::string_view message) {
    std::string_view sender;
    std::string_view line;
    EventStore::split(message, sender, line);
    const EventStore::Outcome outcome = store_.store(sender, line);
    if (outcome == EventStore::Outcome::FAILED) {
        return false;
    }
    count(outcome);
    return true;
}

void OmprogLoader::count(EventStore::Outcome outcome) {
    switch (outcome) {
        case EventStore::Outcome::STORED:
            ++counts_.stored;
            break;
        case EventStore::Outcome::DUPLICATE:
            ++counts_.duplicates;
            break;
        case EventStore::Outcome::UNPARSED:
            ++counts_.unparsed;
            break;
        case EventStore::Outcome::FAILED:
            break;
    }
    if (failing_) {
        diagnostics_ << "qirn-fleet-loader: storing again" << std::endl;
        failing_ = false;
    }
}

void OmprogLoader::refuse() {
    ++counts_.refusals;
    // Said once per outage, not once per offer.
    if (!failing_) {
        diagnostics_ << "qirn-fleet-loader: " << store_.lastError() << std::endl;
        failing_ = true;
    }
    sleepResuming(REFUSAL_PAUSE);
    answer("Error: " + store_.lastError());
}
