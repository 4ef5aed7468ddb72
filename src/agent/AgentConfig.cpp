#include "agent/AgentConfig.h"

#include <cerrno>
#include <cstdlib>

#include "app/Config.h"

namespace {

constexpr long MAX_HEARTBEAT_SECONDS = 3600;
constexpr long MAX_BATCH_LINES = 1000000;
constexpr long MAX_COMMIT_DELAY_MS = 60000;
constexpr long MAX_SHIPS_IN_FLIGHT = 2;

bool parseNumber(const std::string& text, long low, long high, long& value) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const long parsed = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = parsed;
    return true;
}

}  // namespace

Status AgentConfig::load(const std::string& path, const std::string& serviceConfigPath,
                         AgentConfig& config) {
    std::string error;
    bool eventLogSet = false;
    const auto number = [&](const std::string& key, const std::string& value, long low, long high,
                            long& out) {
        if (!parseNumber(value, low, high, out) && error.empty()) {
            error = path + ": " + key + " must be a number from " + std::to_string(low) + " to " +
                    std::to_string(high) + ", not \"" + value + "\"";
        }
    };
    const bool read = forEachSetting(path, [&](const std::string& key, const std::string& value) {
        long n = 0;
        if (key == "conninfo") {
            config.conninfo = value;
        } else if (key == "event_log") {
            config.eventLog = value;
            eventLogSet = !value.empty();
        } else if (key == "backfill_log") {
            config.backfillLog = value;
        } else if (key == "lock_file") {
            config.lockFile = value;
        } else if (key == "textfile_dir") {
            config.textfileDir = value;
        } else if (key == "heartbeat_seconds") {
            number(key, value, 1, MAX_HEARTBEAT_SECONDS, n);
            config.heartbeatSeconds = n > 0 ? static_cast<int>(n) : config.heartbeatSeconds;
        } else if (key == "batch_lines") {
            number(key, value, 1, MAX_BATCH_LINES, n);
            config.batchLines = n > 0 ? static_cast<std::size_t>(n) : config.batchLines;
        } else if (key == "commit_delay_ms") {
            n = -1;
            number(key, value, 0, MAX_COMMIT_DELAY_MS, n);
            config.commitDelay = n >= 0 ? std::chrono::milliseconds(n) : config.commitDelay;
        } else if (key == "ships_in_flight") {
            number(key, value, 1, MAX_SHIPS_IN_FLIGHT, n);
            config.shipsInFlight = n > 0 ? static_cast<std::size_t>(n) : config.shipsInFlight;
        } else {
            config.unknownKeys.push_back(key);
        }
    });
    if (!read) {
        return Status::systemError("cannot read " + path, errno);
    }
    if (!error.empty()) {
        return Status::failure(Status::Code::INVALID, error);
    }
    if (config.conninfo.empty()) {
        return Status::failure(Status::Code::INVALID, path + ": conninfo is required");
    }
    if (!eventLogSet) {
        std::string input;
        std::string output;
        bool debug = false;
        loadConfig(serviceConfigPath, input, output, debug);
        config.eventLog = output.empty() ? DEFAULT_EVENT_LOG : output;
    }
    if (config.backfillLog.empty()) {
        config.backfillLog = DEFAULT_BACKFILL_LOG;
    }
    // Never without a lock: the agent's name is only its own while it holds one.
    if (config.lockFile.empty()) {
        config.lockFile = DEFAULT_LOCK_FILE;
    }
    return Status::success();
}
