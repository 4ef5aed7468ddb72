#include "common/EventLine.h"

namespace {

bool startsWithAt(std::string_view text, std::size_t at, std::string_view part) {
    return text.size() >= at + part.size() && text.compare(at, part.size(), part) == 0;
}

bool endsWith(std::string_view text, std::string_view part) {
    return text.size() >= part.size() &&
           text.compare(text.size() - part.size(), part.size(), part) == 0;
}

}  // namespace

void EventLine::compose(std::string& out, std::string_view time, std::string_view containerId,
                        std::string_view event, std::string_view path, std::string_view status) {
    out.reserve(out.size() + time.size() + CONTAINER_MARKER.size() + containerId.size() +
                EVENT_MARKER.size() + event.size() + PATH_MARKER.size() + path.size() +
                STATUS_MARKER.size() + status.size());
    out.append(time).append(CONTAINER_MARKER).append(containerId).append(EVENT_MARKER);
    out.append(event).append(PATH_MARKER).append(path).append(STATUS_MARKER).append(status);
}

bool EventLine::parse(std::string_view line, Fields& fields) {
    if (!startsWithAt(line, TIME_LENGTH, CONTAINER_MARKER)) {
        return false;
    }
    const std::size_t containerStart = TIME_LENGTH + CONTAINER_MARKER.size();
    // The first ",Event=<word>,path=" closes the container: the path may
    // hold the same text, the container only at its own risk.
    for (std::size_t at = line.find(EVENT_MARKER, containerStart); at != std::string_view::npos;
         at = line.find(EVENT_MARKER, at + 1)) {
        const std::size_t word = at + EVENT_MARKER.size();
        for (const std::string_view event : EVENT_WORDS) {
            if (!startsWithAt(line, word, event) ||
                !startsWithAt(line, word + event.size(), PATH_MARKER)) {
                continue;
            }
            const std::size_t path = word + event.size() + PATH_MARKER.size();
            // The status that ends the line closes the path: the last one,
            // whatever the path holds before it.
            for (const std::string_view status : STATUS_WORDS) {
                const std::size_t ending = STATUS_MARKER.size() + status.size();
                if (line.size() < path + ending || !endsWith(line, status) ||
                    !startsWithAt(line, line.size() - ending, STATUS_MARKER)) {
                    continue;
                }
                fields.time = line.substr(0, TIME_LENGTH);
                fields.containerId = line.substr(containerStart, at - containerStart);
                fields.event = line.substr(word, event.size());
                fields.path = line.substr(path, line.size() - ending - path);
                fields.status = line.substr(line.size() - status.size());
                return true;
            }
            return false;
        }
    }
    return false;
}

std::string EventLine::key(std::string_view containerId, std::string_view path,
                           std::string_view time) {
    std::string key;
    composeKey(key, containerId, path, time);
    return key;
}
