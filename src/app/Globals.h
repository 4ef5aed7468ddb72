#pragma once
// The two process-wide globals shared by the entry point, the signal handler
// and the line callback. They are defined in the entry point's source unit.

#include <atomic>
#include <cstdint>

extern std::atomic<bool> running;
extern std::atomic<int32_t> processedCount;
