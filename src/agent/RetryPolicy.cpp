#include "agent/RetryPolicy.h"

std::string RetryPolicy::reportOnce(Status::Code code, const std::string& message) {
    ++failures_;
    if (outage_ == code) {
        return "";
    }
    outage_ = code;
    return message;
}

RetryPolicy::Decision RetryPolicy::onFailure(const Status& status) {
    switch (status.code()) {
        case Status::Code::CONFLICT:
            return Decision{
                Action::REREAD_POSITION, std::chrono::milliseconds(0),
                "the store's position moved (" + status.message() + "): reading it again"};
        case Status::Code::REFUSED:
            return Decision{Action::RETRY_SLOWLY, NOT_ENROLLED_DELAY,
                            reportOnce(status.code(),
                                       "the store refuses this host (not enrolled or retired): " +
                                           status.message())};
        default:
            break;
    }
    const std::chrono::milliseconds delay = nextDelay_;
    nextDelay_ = std::min(nextDelay_ * 2, MAX_DELAY);
    if (status.code() == Status::Code::BUSY) {
        return Decision{
            Action::WAIT_FOR_LEASE, delay,
            reportOnce(status.code(),
                       "another agent holds this host's lease, waiting: " + status.message())};
    }
    return Decision{
        Action::BACK_OFF, delay,
        reportOnce(Status::Code::UNAVAILABLE, "store unavailable: " + status.message())};
}

std::string RetryPolicy::onSuccess() {
    nextDelay_ = FIRST_DELAY;
    if (outage_ == Status::Code::OK) {
        return "";
    }
    // The end of a wait for the lease is the caller's to say: the store never
    // stopped answering.
    std::string message =
        outage_ == Status::Code::BUSY
            ? ""
            : "the store answers again after " + std::to_string(failures_) + " failed calls";
    outage_ = Status::Code::OK;
    failures_ = 0;
    return message;
}
