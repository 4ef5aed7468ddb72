#pragma once
// One line of the event log: how it is composed, and how any reader of the
// log (the companion's reconcile, the fleet's tests) finds its fields
// again. Fields are found by anchors, never by splitting on commas, since a
// container id or a path may hold commas, blanks and "=" of its own.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "common/TimeText.h"

class EventLine {
public:
    // The time text that opens every event line.
    static constexpr std::size_t TIME_LENGTH = TimeText::LENGTH;
    static constexpr std::string_view CONTAINER_MARKER = ",container_id=";
    static constexpr std::string_view EVENT_MARKER = ",Event=";
    static constexpr std::string_view PATH_MARKER = ",path=";
    static constexpr std::string_view STATUS_MARKER = ",status=";
    static constexpr std::array<std::string_view, 3> EVENT_WORDS = {"exectl", "filectl", "netctl"};
    static constexpr std::array<std::string_view, 2> STATUS_WORDS = {"enforcing", "permissive"};
    // Joins the parts of the record key; the service's duplicate rule compares
    // these keys, and reconcile matches on them.
    static constexpr char KEY_SEPARATOR = '|';

    // A line's parts; each view points into the line it was read from.
    struct Fields {
        std::string_view time;
        std::string_view containerId;
        std::string_view event;
        std::string_view path;
        std::string_view status;
    };

    // Appends the event line (without its newline) to `out`.
    static void compose(std::string& out, std::string_view time, std::string_view containerId,
                        std::string_view event, std::string_view path, std::string_view status);

    // The same line as a text of its own, sized once and then filled, for
    // the converter, which composes one per event.
    static std::string composed(std::string_view time, std::string_view containerId,
                                std::string_view event, std::string_view path,
                                std::string_view status) {
        std::string out(time.size() + CONTAINER_MARKER.size() + containerId.size() +
                            EVENT_MARKER.size() + event.size() + PATH_MARKER.size() + path.size() +
                            STATUS_MARKER.size() + status.size(),
                        '\0');
        char* at = copy(copy(copy(out.data(), time), CONTAINER_MARKER), containerId);
        at = copy(copy(copy(at, EVENT_MARKER), event), PATH_MARKER);
        copy(copy(copy(at, path), STATUS_MARKER), status);
        return out;
    }

    // Reads a line back: the time is its first TIME_LENGTH characters, the
    // container runs to the first ",Event=<word>,path=", the path to the
    // status that ends the line. False when the line is not an event line.
    static bool parse(std::string_view line, Fields& fields);

    // The record key: container, path and time, joined by KEY_SEPARATOR.
    // Composed into `out`, replacing what it held, so that a reused text
    // (of any string type with resize and data) keeps its room.
    template <typename Text>
    static void composeKey(Text& out, std::string_view containerId, std::string_view path,
                           std::string_view time) {
        out.resize(containerId.size() + path.size() + time.size() + 2);
        char* at = out.data();
        at = copy(at, containerId);
        *at++ = KEY_SEPARATOR;
        at = copy(at, path);
        *at++ = KEY_SEPARATOR;
        copy(at, time);
    }
    static std::string key(std::string_view containerId, std::string_view path,
                           std::string_view time);
    static std::string key(const Fields& fields) {
        return key(fields.containerId, fields.path, fields.time);
    }

private:
    // Most pieces are short: two overlapping moves of a fixed size copy them
    // without a library call.
    static char* copy(char* to, std::string_view from) {
        const char* const data = from.data();
        const std::size_t size = from.size();
        if (size > 2 * sizeof(std::uint64_t)) {
            std::memcpy(to, data, size);
        } else if (size >= sizeof(std::uint64_t)) {
            moveEnds<std::uint64_t>(to, data, size);
        } else if (size >= sizeof(std::uint32_t)) {
            moveEnds<std::uint32_t>(to, data, size);
        } else {
            for (std::size_t i = 0; i < size; ++i) {
                to[i] = data[i];
            }
        }
        return to + size;
    }
    // The first and the last sizeof(Word) bytes of a piece of at least that
    // many and at most twice as many.
    template <typename Word>
    static void moveEnds(char* to, const char* from, std::size_t size) {
        Word head;
        Word tail;
        std::memcpy(&head, from, sizeof(Word));
        std::memcpy(&tail, from + size - sizeof(Word), sizeof(Word));
        std::memcpy(to, &head, sizeof(Word));
        std::memcpy(to + size - sizeof(Word), &tail, sizeof(Word));
    }
};
