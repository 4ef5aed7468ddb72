#pragma once
// The handler of SIGINT and SIGTERM: reports the signal, clears `running` so
// that the status loop ends, and gives the other threads a short grace.

void signalHandler(int signum);
