#include "converter/EventWords.h"

#include "converter/ByteScan.h"

using EventType = EventWords::EventType;
using StatusType = EventWords::StatusType;

namespace {

constexpr const auto& OPERATION_WORDS = EventWords::OPERATION_WORDS;
constexpr const auto& DECISIONS = EventWords::DECISIONS;

// No word of the table holds a word of an earlier kind, so an operation that
// is exactly one of the words, as most are, is of that word's kind.
constexpr bool exactWordsDecide() {
    for (std::size_t i = 0; i < OPERATION_WORDS.size(); ++i) {
        for (std::size_t earlier = 0; earlier < i; ++earlier) {
            if (OPERATION_WORDS[earlier].event != OPERATION_WORDS[i].event &&
                OPERATION_WORDS[i].word.find(OPERATION_WORDS[earlier].word) !=
                    std::string_view::npos) {
                return false;
            }
        }
    }
    return true;
}
static_assert(exactWordsDecide(), "an exact word settles its operation");

// For each byte, the words of the table that begin with it, one bit each.
constexpr std::array<std::uint8_t, 256> makeFirstLetters() {
    std::array<std::uint8_t, 256> words{};
    for (std::size_t i = 0; i < OPERATION_WORDS.size(); ++i) {
        words[static_cast<unsigned char>(OPERATION_WORDS[i].word[0])] |=
            static_cast<std::uint8_t>(1U << i);
    }
    return words;
}
constexpr std::array<std::uint8_t, 256> FIRST_LETTERS = makeFirstLetters();
static_assert(OPERATION_WORDS.size() <= 8, "a word's bit fits FIRST_LETTERS");

// Each usual word holds its own part and no earlier one.
constexpr bool usualWordsDecide() {
    for (std::size_t i = 0; i < DECISIONS.size(); ++i) {
        for (std::size_t part = 0; part <= i; ++part) {
            const bool holds =
                DECISIONS[i].usual.find(DECISIONS[part].part) != std::string_view::npos;
            if (holds != (part == i)) {
                return false;
            }
        }
    }
    return true;
}
static_assert(usualWordsDecide(), "a usual word settles its decision");

}  // namespace

EventType EventWords::operationEventByLetters(std::string_view operation) {
    // One walk over the operation, each word tried only where its first
    // letter stands, until the first word of the table settles it.
    unsigned found = 0;
    for (std::size_t i = 0; i < operation.size() && (found & 1U) == 0; ++i) {
        unsigned words = FIRST_LETTERS[static_cast<unsigned char>(ByteScan::lower(operation[i]))];
        for (; words != 0; words &= words - 1) {
            const auto index = static_cast<unsigned>(__builtin_ctz(words));
            if (ByteScan::startsWithLowered(operation.substr(i), OPERATION_WORDS[index].word)) {
                found |= 1U << index;
            }
        }
    }
    return found == 0 ? EventType::UNKNOWN
                      : OPERATION_WORDS[static_cast<unsigned>(__builtin_ctz(found))].event;
}

std::string EventWords::wordsOf(EventType event) {
    std::string words;
    for (const OperationWord& entry : OPERATION_WORDS) {
        if (entry.event == event) {
            words.append(words.empty() ? "" : "/").append(entry.word);
        }
    }
    return words;
}

const EventWords::Decision* EventWords::decideByParts(std::string_view rest,
                                                      std::string_view& word) {
    std::size_t end = 0;
    while (end < rest.size() && !endsDecisionWord(rest[end])) {
        ++end;
    }
    word = rest.substr(0, end);
    for (const Decision& decision : DECISIONS) {
        if (ByteScan::containsLowered(word, decision.part)) {
            return &decision;
        }
    }
    return nullptr;
}
