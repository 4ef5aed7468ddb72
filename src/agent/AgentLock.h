#pragma once
// One agent per configuration on a machine: an exclusive flock on the lock
// file, held for the agent's life and let go by the kernel however it ends.
// Holding it is what lets the agent's stable name take a lease left under
// that name at once: no other agent of this machine can be using it.

#include <string>

#include "common/Status.h"

class AgentLock {
public:
    AgentLock() = default;
    ~AgentLock();
    AgentLock(const AgentLock&) = delete;
    AgentLock& operator=(const AgentLock&) = delete;

    // Takes the lock without waiting and writes this process's pid into the
    // file. BUSY, naming the file and the holder's pid, when another process
    // holds it; IO_ERROR when the file cannot be opened or written.
    Status take(const std::string& path);

private:
    int fd_ = -1;
};
