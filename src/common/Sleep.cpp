#include "common/Sleep.h"

#include <cerrno>
#include <ctime>

void sleepResuming(std::chrono::nanoseconds duration) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(duration);
    timespec request{static_cast<time_t>(seconds.count()),
                     static_cast<long>((duration - seconds).count())};
    timespec remaining{0, 0};
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) {
        request = remaining;
    }
}
