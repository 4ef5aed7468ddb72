#include "common/Sleep.h"

#include <cerrno>

void sleepResuming(time_t seconds, long nanoseconds) {
    timespec request{seconds, nanoseconds};
    timespec remaining{0, 0};
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) {
        request = remaining;
    }
}
