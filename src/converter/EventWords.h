#pragma once
// What a record's words make of it: the event kind of an access-vector
// operation and the status of a decision word, each the plain rule of a
// table, decided the fast way. The plain rule: the first word of the table
// that the text contains, compared as if lower-cased. The fast way: the usual
// whole words settle most texts at once; for the rest one walk over the
// operation tries each word only where its first letter stands.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "common/EventLine.h"
#include "converter/ByteScan.h"

class EventWords {
public:
    enum class EventType : int32_t { UNKNOWN = 0, EXECTL = 1, FILECTL = 2, NETCTL = 3 };
    enum class StatusType : int32_t { UNKNOWN = 0, ENFORCING = 1, PERMISSIVE = 2 };

    struct OperationWord {
        std::string_view word;
        EventType event;
    };
    static constexpr std::array<OperationWord, 7> OPERATION_WORDS = {{
        {"exec", EventType::EXECTL},
        {"interpret", EventType::EXECTL},
        {"write", EventType::FILECTL},
        {"truncate", EventType::FILECTL},
        {"setattr", EventType::FILECTL},
        {"unlink", EventType::FILECTL},
        {"rename", EventType::FILECTL},
    }};

    // `part` decides; `usual` is the whole word as audit records carry it.
    struct Decision {
        std::string_view part;
        std::string_view usual;
        StatusType status;
    };
    static constexpr std::array<Decision, 2> DECISIONS = {{
        {"denied", "denied", StatusType::ENFORCING},
        {"detect", "detected", StatusType::PERMISSIVE},
    }};

    // The event kind of an operation (already lower-cased and without white
    // space, or not: the comparison ignores case). Inline, so that the usual
    // operation, exactly one of the words, costs no call.
    static EventType operationEvent(std::string_view operation) {
        for (const OperationWord& entry : OPERATION_WORDS) {
            if (operation == entry.word) {
                return entry.event;
            }
        }
        return operationEventByLetters(operation);
    }
    // "exec/interpret": the words of one kind, as the trace names them.
    static std::string wordsOf(EventType event);
    // The decision word that opens `rest` (up to a blank, tab or colon), and
    // the entry that settles it, if any. Inline, so that the usual word costs
    // no call.
    static const Decision* decide(std::string_view rest, std::string_view& word) {
        for (const Decision& decision : DECISIONS) {
            const std::size_t size = decision.usual.size();
            if (ByteScan::startsWith(rest, decision.usual) &&
                (rest.size() == size || endsDecisionWord(rest[size]))) {
                word = rest.substr(0, size);
                return &decision;
            }
        }
        return decideByParts(rest, word);
    }
    // A blank, tab or colon ends a decision word; a comma does not, so
    // "denied," still counts as denied.
    static bool endsDecisionWord(char c) { return c == ' ' || c == '\t' || c == ':'; }

    // The words an event line gives each classification; empty for UNKNOWN.
    // The enumerators count from 1 in the order of the line's words; UNKNOWN,
    // 0, wraps past the end and has none.
    static std::string_view eventWord(EventType event) {
        const std::size_t at = static_cast<std::size_t>(event) - 1;
        return at < EventLine::EVENT_WORDS.size() ? EventLine::EVENT_WORDS[at] : std::string_view();
    }
    static std::string_view statusWord(StatusType status) {
        const std::size_t at = static_cast<std::size_t>(status) - 1;
        return at < EventLine::STATUS_WORDS.size() ? EventLine::STATUS_WORDS[at]
                                                   : std::string_view();
    }

private:
    // The rules themselves, for what the usual words do not settle.
    static EventType operationEventByLetters(std::string_view operation);
    static const Decision* decideByParts(std::string_view rest, std::string_view& word);
};
