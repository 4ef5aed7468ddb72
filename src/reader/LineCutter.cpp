#include "reader/LineCutter.h"

#include <cstring>

std::size_t LineCutter::textLength(const char* start, std::size_t size) {
    const void* zero = std::memchr(start, '\0', size);
    return zero != nullptr ? static_cast<std::size_t>(static_cast<const char*>(zero) - start)
                           : size;
}
