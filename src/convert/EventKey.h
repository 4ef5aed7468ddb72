#pragma once
// The service's duplicate key (container, path, time text as written), read
// back from a line of an event log by its anchors rather than by splitting on
// commas, since a container or a path may hold commas of its own.

#include <string>
#include <string_view>

class EventKey {
public:
    // The key of an event line, or false when the line is not one.
    static bool fromEventLine(std::string_view line, std::string& key);
    // The same key composed from a converted record's fields.
    static std::string compose(std::string_view containerId, std::string_view path,
                               std::string_view time);
};
