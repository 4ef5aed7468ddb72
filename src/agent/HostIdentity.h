#pragma once
// How this agent names itself to the store and which zone its host's wall
// clock is in: the store turns the time as written into an instant by it.

#include <string>

class HostIdentity {
public:
    // "hostname:pid:start-time", unique to one running agent.
    static std::string agentName();
    // TZ when set, else /etc/timezone, else the zone /etc/localtime links to,
    // else UTC. `root` prefixes the /etc paths, for tests.
    static std::string zone(const std::string& root = "");
};
