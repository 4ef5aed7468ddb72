#pragma once
// How this agent names itself to the store and which zone its host's wall
// clock is in: the store turns the time as written into an instant by it.

#include <string>

class HostIdentity {
public:
    // "hostname:machine-id", the same across restarts of this machine's agent,
    // so that an agent restarted after a crash takes its own lease back at
    // once (the agent's lock file keeps a second one from running beside
    // it). The machine id comes from /etc/machine-id, else
    // /var/lib/dbus/machine-id; without either the name is the hostname.
    // `root` prefixes those paths, for tests.
    static std::string agentName(const std::string& root = "");
    // TZ when set, else /etc/timezone, else the zone /etc/localtime links to,
    // else UTC. `root` prefixes the /etc paths, for tests.
    static std::string zone(const std::string& root = "");
};
