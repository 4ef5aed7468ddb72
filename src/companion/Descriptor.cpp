#include "companion/Descriptor.h"

#include <unistd.h>

#include <cerrno>

int Descriptor::writeAll(int fd, std::string_view text, std::size_t& done) {
    done = 0;
    while (done < text.size()) {
        const ssize_t wrote = write(fd, text.data() + done, text.size() - done);
        if (wrote < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        if (wrote == 0) {
            // Not an error by errno, but no progress: report it rather than spin.
            return EIO;
        }
        done += static_cast<std::size_t>(wrote);
    }
    return 0;
}
