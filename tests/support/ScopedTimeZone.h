#pragma once
// Sets TZ for one scope and puts the previous setting back, so that time texts
// can be asserted literally and no test leaves its zone to the next.

#include <cstdlib>
#include <ctime>
#include <string>

namespace testing_support {

class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* zone) {
        const char* previous = std::getenv("TZ");
        hadPrevious_ = previous != nullptr;
        if (hadPrevious_) {
            previous_ = previous;
        }
        setenv("TZ", zone, 1);
        tzset();
    }
    ~ScopedTimeZone() {
        if (hadPrevious_) {
            setenv("TZ", previous_.c_str(), 1);
        } else {
            unsetenv("TZ");
        }
        tzset();
    }
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

private:
    bool hadPrevious_ = false;
    std::string previous_;
};

}  // namespace testing_support
