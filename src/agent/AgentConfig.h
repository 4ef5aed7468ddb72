#pragma once
// The agent's settings, read from its key=value file with the service's own
// rules; the event log's path defaults to the service's `output_log`, so the
// agent follows whatever file the service writes.

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "common/Status.h"

class AgentConfig {
public:
    static constexpr const char* DEFAULT_PATH = "/etc/qirn/qirn-fleet-agent.conf";
    static constexpr const char* SERVICE_CONFIG_PATH = "/etc/qirn/qirn-log-converter.conf";
    static constexpr const char* DEFAULT_EVENT_LOG = "/var/log/zarvo_container.log";
    static constexpr const char* DEFAULT_BACKFILL_LOG = "/var/log/zarvo_container.backfill.log";
    static constexpr const char* DEFAULT_TEXTFILE_DIR = "/var/lib/prometheus/node-exporter";
    static constexpr const char* DEFAULT_LOCK_FILE = "/run/qirn-fleet-agent/agent.lock";

    // Reads `path`; `serviceConfigPath` is where the service's own settings
    // are, for the event log's default. INVALID when a value is wrong or the
    // connection string is missing, IO_ERROR when the file cannot be read.
    static Status load(const std::string& path, const std::string& serviceConfigPath,
                       AgentConfig& config);

    std::string conninfo;
    std::string eventLog;
    std::string backfillLog = DEFAULT_BACKFILL_LOG;
    int heartbeatSeconds = 30;
    std::string textfileDir = DEFAULT_TEXTFILE_DIR;
    // Held while the agent runs: one agent per configuration on a machine.
    std::string lockFile = DEFAULT_LOCK_FILE;
    std::size_t batchLines = 10000;
    std::chrono::milliseconds commitDelay{50};
    // Ship calls sent before the first one's answer is read (pipelined), so
    // that a long round trip is paid once for two batches.
    std::size_t shipsInFlight = 2;
    // Keys the file set that the agent does not know, to be warned about.
    std::vector<std::string> unknownKeys;
};
