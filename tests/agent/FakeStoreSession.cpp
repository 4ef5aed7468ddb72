#include "FakeStoreSession.h"

bool FakeStoreSession::takeFailure(Status& status) {
    ++calls_;
    if (failures_.empty()) {
        connected_ = true;
        return false;
    }
    status = failures_.front();
    failures_.pop_front();
    connected_ = status.code() != Status::Code::UNAVAILABLE;
    return true;
}

Status FakeStoreSession::takeLease() {
    if (!leaseHolder_.empty() && leaseHolder_ != agent_) {
        return Status::failure(Status::Code::BUSY, "agent " + leaseHolder_ +
                                                       " holds the lease of this host until "
                                                       "2026-11-24 23:00:00+00");
    }
    leaseHolder_ = agent_;
    return Status::success();
}

Status FakeStoreSession::position(const std::string& stream, Position& position) {
    std::lock_guard<std::mutex> lock(mutex_);
    Status failure;
    if (takeFailure(failure)) {
        return failure;
    }
    const auto found = positions_.find(stream);
    position = found == positions_.end() ? Position{} : found->second;
    return Status::success();
}

void FakeStoreSession::ship(const std::vector<Batch>& batches, std::vector<Shipped>& replies) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++shipCalls_;
    replies.clear();
    for (const Batch& batch : batches) {
        Shipped shipped;
        Status failure;
        if (takeFailure(failure)) {
            shipped.status = failure;
        } else if (Status lease = takeLease(); !lease.ok()) {
            shipped.status = lease;
        } else {
            const Position& now = positions_[batch.stream];
            const std::string nowKey = now.present ? now.fileKey : "";
            const int64_t nowOffset = now.present ? now.fileOffset : 0;
            if (nowKey != batch.expectedFile || nowOffset != batch.expectedOffset) {
                shipped.status = Status::failure(Status::Code::CONFLICT, "position moved");
            } else {
                for (std::string_view line : batch.lines) {
                    lines_[batch.stream].emplace_back(line);
                }
                for (std::size_t i = 0; i < batch.unparsedLines.size(); ++i) {
                    unparsed_[batch.stream].push_back(
                        Unparsed{std::string(batch.unparsedLines[i]),
                                 std::string(batch.unparsedReasons[i])});
                }
                batchSizes_[batch.stream].push_back(batch.lines.size() +
                                                    batch.unparsedLines.size());
                positions_[batch.stream] = Position{true, batch.fileKey, batch.endOffset};
                shipped.stored = static_cast<int64_t>(batch.lines.size());
                shipped.unparsed = static_cast<int64_t>(batch.unparsedLines.size());
            }
        }
        replies.push_back(shipped);
    }
}

Status FakeStoreSession::heartbeat(const Heartbeat& heartbeat) {
    std::lock_guard<std::mutex> lock(mutex_);
    Status failure;
    if (takeFailure(failure)) {
        return failure;
    }
    if (Status lease = takeLease(); !lease.ok()) {
        return lease;
    }
    ++heartbeats_;
    lastHeartbeat_ = heartbeat;
    return Status::success();
}

Status FakeStoreSession::release() {
    std::lock_guard<std::mutex> lock(mutex_);
    Status failure;
    if (takeFailure(failure)) {
        return failure;
    }
    ++releases_;
    if (leaseHolder_ == agent_) {
        leaseHolder_.clear();
    }
    return Status::success();
}

bool FakeStoreSession::connected() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return connected_;
}

void FakeStoreSession::failNext(const Status& status, int calls) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int i = 0; i < calls; ++i) {
        failures_.push_back(status);
    }
}

void FakeStoreSession::setLeaseHolder(const std::string& holder) {
    std::lock_guard<std::mutex> lock(mutex_);
    leaseHolder_ = holder;
}

std::string FakeStoreSession::leaseHolder() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return leaseHolder_;
}

void FakeStoreSession::setPosition(const std::string& stream, const std::string& key,
                                   int64_t offset) {
    std::lock_guard<std::mutex> lock(mutex_);
    positions_[stream] = Position{true, key, offset};
}

std::vector<std::string> FakeStoreSession::lines(const std::string& stream) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = lines_.find(stream);
    return found == lines_.end() ? std::vector<std::string>{} : found->second;
}

std::vector<FakeStoreSession::Unparsed> FakeStoreSession::unparsed(
    const std::string& stream) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = unparsed_.find(stream);
    return found == unparsed_.end() ? std::vector<Unparsed>{} : found->second;
}

StoreSession::Position FakeStoreSession::committed(const std::string& stream) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = positions_.find(stream);
    return found == positions_.end() ? Position{} : found->second;
}

std::vector<std::size_t> FakeStoreSession::batchSizes(const std::string& stream) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = batchSizes_.find(stream);
    return found == batchSizes_.end() ? std::vector<std::size_t>{} : found->second;
}

int FakeStoreSession::shipCalls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return shipCalls_;
}

int FakeStoreSession::heartbeats() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return heartbeats_;
}

int FakeStoreSession::releases() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return releases_;
}

int FakeStoreSession::calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

StoreSession::Heartbeat FakeStoreSession::lastHeartbeat() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastHeartbeat_;
}
