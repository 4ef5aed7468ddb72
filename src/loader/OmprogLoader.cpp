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
    const Counts before = counts_;
    bool stored = store_.begin();
    for (std::size_t i = 0; stored && i < batch_.size(); ++i) {
        stored = storeLine(batch_[i]);
    }
    stored = stored && store_.commit();
    batch_.clear();
    if (stored) {
        answer(CONFIRMED);
        return;
    }
    store_.rollback();
    const std::uint64_t refusals = counts_.refusals;
    counts_ = before;
    counts_.refusals = refusals;
    refuse();
}

bool OmprogLoader::storeLine(std::string_view message) {
    const std::size_t tab = message.find(SENDER_SEPARATOR);
    const std::string_view sender = tab == std::string_view::npos ? "" : message.substr(0, tab);
    const std::string_view line = tab == std::string_view::npos ? message : message.substr(tab + 1);
    switch (store_.store(sender, line)) {
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
            return false;
    }
    if (failing_) {
        diagnostics_ << "qirn-fleet-loader: storing again" << std::endl;
        failing_ = false;
    }
    return true;
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
