#include "agent/HostIdentity.h"

#include <unistd.h>

#include <climits>
#include <cstddef>
#include <cstdlib>
#include <fstream>

namespace {

constexpr const char* ZONEINFO = "zoneinfo/";
constexpr const char* UTC = "UTC";
constexpr const char* MACHINE_ID_PATHS[] = {"/etc/machine-id", "/var/lib/dbus/machine-id"};
// A machine id is 32 hex digits; anything longer is not one.
constexpr std::size_t MACHINE_ID_MAX = 64;

std::string trimmed(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

// "/usr/share/zoneinfo/Europe/Paris" names the zone "Europe/Paris".
std::string afterZoneinfo(const std::string& path) {
    const std::string::size_type at = path.rfind(ZONEINFO);
    return at == std::string::npos ? "" : path.substr(at + std::string(ZONEINFO).size());
}

// The file's first line, or "" when it is missing, empty or not an id
// (systemd leaves "uninitialized" there until first boot completes).
std::string machineId(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!file || !std::getline(file, line)) {
        return "";
    }
    line = trimmed(line);
    if (line.empty() || line.size() > MACHINE_ID_MAX ||
        line.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return "";
    }
    return line;
}

}  // namespace

std::string HostIdentity::agentName(const std::string& root) {
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof host - 1) != 0) {
        host[0] = '\0';
    }
    // The store refuses an agent without a name.
    std::string name = host[0] != '\0' ? host : "localhost";
    for (const char* path : MACHINE_ID_PATHS) {
        const std::string id = machineId(root + path);
        if (!id.empty()) {
            name.append(":").append(id);
            break;
        }
    }
    return name;
}

std::string HostIdentity::zone(const std::string& root) {
    if (const char* tz = std::getenv("TZ"); tz != nullptr && *tz != '\0') {
        std::string value = tz[0] == ':' ? tz + 1 : tz;
        const std::string named = afterZoneinfo(value);
        return named.empty() ? value : named;
    }
    std::ifstream timezone(root + "/etc/timezone");
    std::string line;
    if (timezone && std::getline(timezone, line) && !trimmed(line).empty()) {
        return trimmed(line);
    }
    char target[PATH_MAX] = {};
    const ssize_t length = readlink((root + "/etc/localtime").c_str(), target, sizeof target - 1);
    if (length > 0) {
        std::string named = afterZoneinfo(std::string(target, static_cast<std::size_t>(length)));
        if (!named.empty()) {
            return named;
        }
    }
    return UTC;
}
