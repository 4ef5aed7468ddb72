#pragma once
// The audit-type filter: a line is handled when its first "type=" carries one
// of the two handled types as a whole value (up to a blank). Everything here
// follows from these constants; the shortcut for the common line of another
// type, which the service and the companion ask before anything else, is the
// same rule read off the line's first bytes.

#include <cstddef>
#include <cstring>
#include <string_view>

class AuditType {
public:
    // How a line of either handled type opens, as records carry it.
    static constexpr std::string_view HANDLED_OPENING = "type=QIRN_";
    static constexpr std::string_view MARKER = HANDLED_OPENING.substr(0, 5);
    static constexpr std::string_view HANDLED_PREFIX = HANDLED_OPENING.substr(MARKER.size());
    static constexpr std::string_view AVC = "QIRN_AVC";
    static constexpr std::string_view NETCTL = "QIRN_NETCTL";

    // A line of another type whose first bytes already say so: "type=" opens
    // it and its value does not begin with the handled prefix.
    static bool isOtherAtOnce(std::string_view line) {
        return startsWithMarker(line) &&
               (line.size() < HANDLED_OPENING.size() ||
                std::memcmp(line.data() + MARKER.size(), HANDLED_PREFIX.data(),
                            HANDLED_PREFIX.size()) != 0);
    }

    // The filter's rule, keeping the handled type found in `type`.
    static bool findHandled(std::string_view line, std::string_view& type) {
        return find(line, type) && (type == AVC || type == NETCTL);
    }

    static bool isHandled(std::string_view line) {
        return !isOtherAtOnce(line) && findsHandled(line);
    }

private:
    // Apart, so that the common line, settled by its first bytes, runs in a
    // frame without the found type's room.
    [[gnu::noinline]] static bool findsHandled(std::string_view line) {
        std::string_view type;
        return findHandled(line, type);
    }

    static_assert(MARKER == "type=", "the opening starts with the type's marker");
    static_assert(AVC.substr(0, HANDLED_PREFIX.size()) == HANDLED_PREFIX &&
                      NETCTL.substr(0, HANDLED_PREFIX.size()) == HANDLED_PREFIX,
                  "the shortcut passes both handled types");

    static bool startsWithMarker(std::string_view line) {
        return line.size() >= MARKER.size() &&
               std::memcmp(line.data(), MARKER.data(), MARKER.size()) == 0;
    }

    // Whether the line opens with "type=" and `type` as a whole value.
    [[gnu::always_inline]] static bool opensWith(std::string_view line, std::string_view type) {
        const std::size_t end = MARKER.size() + type.size();
        return line.size() >= end && startsWithMarker(line) &&
               std::memcmp(line.data() + MARKER.size(), type.data(), type.size()) == 0 &&
               (line.size() == end || line[end] == ' ');
    }

    // The value after the first "type=", up to the next blank; false when the
    // line has no "type=" at all.
    static bool find(std::string_view line, std::string_view& type) {
        // The two handled types at the start of the line, as records carry
        // them, are recognised without a search for the blank.
        if (opensWith(line, AVC)) {
            type = line.substr(MARKER.size(), AVC.size());
            return true;
        }
        if (opensWith(line, NETCTL)) {
            type = line.substr(MARKER.size(), NETCTL.size());
            return true;
        }
        const std::size_t marker = line.find(MARKER);
        if (marker == std::string_view::npos) {
            return false;
        }
        const std::size_t start = marker + MARKER.size();
        type = line.substr(start, line.find(' ', start) - start);
        return true;
    }
};
