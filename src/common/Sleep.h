#pragma once
// The one way this service sleeps: a relative nanosleep that resumes with the
// remaining time when a signal interrupts it, so signals never shorten a pause.

#include <chrono>

void sleepResuming(std::chrono::nanoseconds duration);
