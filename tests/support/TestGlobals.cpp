// Test programs link the library without the entry point, which is where the
// service defines these; the tests get their own definitions here.
#include "app/Globals.h"

std::atomic<bool> running{true};
std::atomic<int32_t> processedCount{0};
