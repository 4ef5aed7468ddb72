#pragma once
// What an operation that can fail hands back: success, or one line that names
// what failed. Failures travel as values, so a caller decides what to log and
// whether to go on; nothing below main throws for an expected failure.

#include <string>
#include <utility>

class Status {
public:
    // What kind of failure, for callers that act differently on each; most
    // only log the message.
    // BUSY: someone else holds what the operation needs (a lease), for now.
    enum class Code { OK, IO_ERROR, INVALID, UNAVAILABLE, CONFLICT, REFUSED, BUSY };

    Status() = default;

    static Status success() { return Status(); }
    static Status failure(Code code, std::string message) {
        return Status(code, std::move(message));
    }
    // "WHAT: strerror(error)", the way every system failure is reported here.
    static Status systemError(const std::string& what, int error);

    bool ok() const { return code_ == Code::OK; }
    Code code() const { return code_; }
    // Empty on success.
    const std::string& message() const { return message_; }

private:
    Status(Code code, std::string message) : code_(code), message_(std::move(message)) {}

    Code code_ = Code::OK;
    std::string message_;
};
