#include "common/Status.h"

#include <cstring>

Status Status::systemError(const std::string& what, int error) {
    return Status(Code::IO_ERROR, what + ": " + std::strerror(error));
}
