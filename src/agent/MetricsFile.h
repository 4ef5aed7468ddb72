#pragma once
// The agent's metrics as node_exporter's textfile collector reads them:
// written beside the file and renamed into place, so a scrape never sees
// half a file.

#include <cstdint>
#include <string>
#include <vector>

#include "common/Status.h"

class MetricsFile {
public:
    static constexpr const char* FILE_NAME = "qirn_fleet_agent.prom";

    struct StreamLag {
        std::string stream;
        int64_t bytes = 0;
        double seconds = 0;
    };

    struct Values {
        bool connected = false;
        std::vector<StreamLag> lags;
        double lastCommit = 0;
        double lastHeartbeat = 0;
        uint64_t stored = 0;
        uint64_t duplicates = 0;
        uint64_t unparsed = 0;
        uint64_t errors = 0;
        uint64_t lostFiles = 0;
    };

    static std::string render(const Values& values);
    // Nothing is written when `directory` is empty.
    static Status write(const std::string& directory, const Values& values);
};
