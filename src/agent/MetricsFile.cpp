#include "agent/MetricsFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

void metric(std::string& out, const char* name, const char* type, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

// Milliseconds are as fine as any of these values gets; no trailing zeros.
std::string number(double value) {
    char text[64];
    const int length = std::snprintf(text, sizeof text, "%.3f", value);
    std::string out(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    if (out.empty()) {
        return "0";
    }
    while (out.back() == '0') {
        out.pop_back();
    }
    if (out.back() == '.') {
        out.pop_back();
    }
    return out;
}

void sample(std::string& out, const std::string& name, const std::string& value) {
    out += name;
    out += ' ';
    out += value;
    out += '\n';
}

}  // namespace

std::string MetricsFile::render(const Values& values) {
    std::string out;
    metric(out, "qirn_fleet_agent_connected", "gauge",
           "Whether the last store call reached the store.");
    sample(out, "qirn_fleet_agent_connected", values.connected ? "1" : "0");
    metric(out, "qirn_fleet_agent_lag_bytes", "gauge", "Bytes of the log not yet committed.");
    for (const StreamLag& lag : values.lags) {
        sample(out, "qirn_fleet_agent_lag_bytes{stream=\"" + lag.stream + "\"}",
               std::to_string(lag.bytes));
    }
    metric(out, "qirn_fleet_agent_lag_seconds", "gauge",
           "Age of the oldest line not yet committed.");
    for (const StreamLag& lag : values.lags) {
        sample(out, "qirn_fleet_agent_lag_seconds{stream=\"" + lag.stream + "\"}",
               number(lag.seconds));
    }
    metric(out, "qirn_fleet_agent_last_commit_timestamp_seconds", "gauge",
           "When the store last committed a batch.");
    sample(out, "qirn_fleet_agent_last_commit_timestamp_seconds", number(values.lastCommit));
    metric(out, "qirn_fleet_agent_last_heartbeat_timestamp_seconds", "gauge",
           "When the store last took a heartbeat.");
    sample(out, "qirn_fleet_agent_last_heartbeat_timestamp_seconds", number(values.lastHeartbeat));
    metric(out, "qirn_fleet_agent_events_stored_total", "counter", "Events the store stored.");
    sample(out, "qirn_fleet_agent_events_stored_total", std::to_string(values.stored));
    metric(out, "qirn_fleet_agent_duplicates_total", "counter", "Events the store already held.");
    sample(out, "qirn_fleet_agent_duplicates_total", std::to_string(values.duplicates));
    metric(out, "qirn_fleet_agent_unparsed_total", "counter", "Lines the store kept as unparsed.");
    sample(out, "qirn_fleet_agent_unparsed_total", std::to_string(values.unparsed));
    metric(out, "qirn_fleet_agent_errors_total", "counter", "Store calls that failed.");
    sample(out, "qirn_fleet_agent_errors_total", std::to_string(values.errors));
    metric(out, "qirn_fleet_agent_lost_files_total", "counter",
           "Files rotated away before the agent could read them to their end.");
    sample(out, "qirn_fleet_agent_lost_files_total", std::to_string(values.lostFiles));
    return out;
}

Status MetricsFile::write(const std::string& directory, const Values& values) {
    if (directory.empty()) {
        return Status::success();
    }
    const std::string path = directory + "/" + FILE_NAME;
    const std::string temporary = directory + "/." + FILE_NAME + ".tmp";
    const std::string text = render(values);
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        return Status::systemError("cannot write " + temporary, errno);
    }
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t wrote = ::write(fd, text.data() + done, text.size() - done);
        if (wrote < 0 && errno == EINTR) {
            continue;
        }
        if (wrote < 0) {
            const int error = errno;
            close(fd);
            unlink(temporary.c_str());
            return Status::systemError("cannot write " + temporary, error);
        }
        done += static_cast<std::size_t>(wrote);
    }
    close(fd);
    if (rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        unlink(temporary.c_str());
        return Status::systemError("cannot rename " + temporary + " to " + path, error);
    }
    return Status::success();
}
