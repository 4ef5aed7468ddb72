#include "agent/HostIdentity.h"

#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <fstream>

namespace {

constexpr const char* ZONEINFO = "zoneinfo/";
constexpr const char* UTC = "UTC";

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

}  // namespace

std::string HostIdentity::agentName() {
    char host[HOST_NAME_MAX + 1] = {};
    if (gethostname(host, sizeof host - 1) != 0) {
        host[0] = '\0';
    }
    const time_t now = time(nullptr);
    struct tm utc {};
    gmtime_r(&now, &utc);
    char started[32];
    if (strftime(started, sizeof started, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0) {
        started[0] = '\0';
    }
    return std::string(host) + ":" + std::to_string(getpid()) + ":" + started;
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
