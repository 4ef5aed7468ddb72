#include "convert/EventKey.h"

#include <array>

namespace {

constexpr std::size_t TIME_LENGTH = 15;
constexpr std::string_view CONTAINER_MARKER = ",container_id=";
constexpr std::string_view EVENT_MARKER = ",Event=";
constexpr std::string_view PATH_MARKER = ",path=";
constexpr std::array<std::string_view, 3> EVENT_WORDS = {"exectl", "filectl", "netctl"};
constexpr std::array<std::string_view, 2> STATUS_ENDINGS = {",status=enforcing",
                                                            ",status=permissive"};
constexpr char KEY_SEPARATOR = '|';

bool startsWithAt(std::string_view text, std::size_t at, std::string_view part) {
    return text.size() >= at + part.size() && text.compare(at, part.size(), part) == 0;
}

bool endsWith(std::string_view text, std::string_view part) {
    return text.size() >= part.size() &&
           text.compare(text.size() - part.size(), part.size(), part) == 0;
}

// Start of the path: after the first ",Event=<word>,path=" at or after `from`.
std::size_t pathStart(std::string_view line, std::size_t from, std::size_t& containerEnd) {
    for (std::size_t at = line.find(EVENT_MARKER, from); at != std::string_view::npos;
         at = line.find(EVENT_MARKER, at + 1)) {
        const std::size_t word = at + EVENT_MARKER.size();
        for (const std::string_view event : EVENT_WORDS) {
            if (startsWithAt(line, word, event) &&
                startsWithAt(line, word + event.size(), PATH_MARKER)) {
                containerEnd = at;
                return word + event.size() + PATH_MARKER.size();
            }
        }
    }
    return std::string_view::npos;
}

}  // namespace

bool EventKey::fromEventLine(std::string_view line, std::string& key) {
    if (!startsWithAt(line, TIME_LENGTH, CONTAINER_MARKER)) {
        return false;
    }
    const std::size_t containerStart = TIME_LENGTH + CONTAINER_MARKER.size();
    std::size_t containerEnd = 0;
    const std::size_t path = pathStart(line, containerStart, containerEnd);
    if (path == std::string_view::npos) {
        return false;
    }
    // The status that ends the line closes the path: the last one, whatever
    // the path holds before it.
    for (const std::string_view ending : STATUS_ENDINGS) {
        if (endsWith(line, ending) && line.size() - ending.size() >= path) {
            key = compose(line.substr(containerStart, containerEnd - containerStart),
                          line.substr(path, line.size() - ending.size() - path),
                          line.substr(0, TIME_LENGTH));
            return true;
        }
    }
    return false;
}

std::string EventKey::compose(std::string_view containerId, std::string_view path,
                              std::string_view time) {
    std::string key;
    key.reserve(containerId.size() + path.size() + time.size() + 2);
    key.append(containerId).append(1, KEY_SEPARATOR).append(path).append(1, KEY_SEPARATOR);
    key.append(time);
    return key;
}
