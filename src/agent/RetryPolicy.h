#pragma once
// What the agent does after a failed store call, and what it says: it backs
// off 0.5 s doubling to 5 s and says once per outage what failed, then once
// that the store answers again. A moved position is no outage: the agent
// reads it again at once.

#include <chrono>
#include <cstdint>
#include <string>

#include "common/Status.h"

class RetryPolicy {
public:
    static constexpr std::chrono::milliseconds FIRST_DELAY{500};
    // Short, so a store back after an outage is used within seconds; the
    // timeouts bound how long each attempt may wait.
    static constexpr std::chrono::milliseconds MAX_DELAY{5000};
    // A host the store does not know stays unknown until an operator acts.
    static constexpr std::chrono::milliseconds NOT_ENROLLED_DELAY{60000};

    enum class Action { REREAD_POSITION, WAIT_FOR_LEASE, RETRY_SLOWLY, BACK_OFF };

    struct Decision {
        Action action;
        std::chrono::milliseconds delay;
        // What to log; empty when this outage was already reported.
        std::string message;
    };

    Decision onFailure(const Status& status);
    // What to log when a call succeeds; empty unless it ends an outage.
    std::string onSuccess();
    bool inOutage() const { return outage_ != Status::Code::OK; }

private:
    std::string reportOnce(Status::Code code, const std::string& message);

    std::chrono::milliseconds nextDelay_ = FIRST_DELAY;
    Status::Code outage_ = Status::Code::OK;
    uint64_t failures_ = 0;
};
