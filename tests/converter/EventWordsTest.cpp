// The event kind and the decision each pinned against the plain rule they
// speed up: lower-case the text, then take the first word of the table it
// contains. Tried on the usual words, on every word embedded in noise, on
// mixed case, and on random texts over the words' own letters.

#include "converter/EventWords.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

using EventType = EventWords::EventType;
using StatusType = EventWords::StatusType;

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

EventType plainOperationEvent(std::string_view operation) {
    const std::string text = lowered(operation);
    for (const auto& entry : EventWords::OPERATION_WORDS) {
        if (text.find(entry.word) != std::string::npos) {
            return entry.event;
        }
    }
    return EventType::UNKNOWN;
}

// The word up to a blank, tab or colon; the first decision whose part it holds.
StatusType plainDecision(std::string_view rest, std::string& word) {
    const std::size_t end = rest.find_first_of(" \t:");
    word = std::string(rest.substr(0, end));
    const std::string text = lowered(word);
    for (const auto& decision : EventWords::DECISIONS) {
        if (text.find(decision.part) != std::string::npos) {
            return decision.status;
        }
    }
    return StatusType::UNKNOWN;
}

StatusType fastDecision(std::string_view rest, std::string& word) {
    std::string_view found;
    const EventWords::Decision* const decision = EventWords::decide(rest, found);
    word = std::string(found);
    return decision == nullptr ? StatusType::UNKNOWN : decision->status;
}

std::vector<std::string> operationSamples() {
    std::vector<std::string> samples = {"",          "read",      "open",
                                        "getattr",   "EXEC",      "Write",
                                        "writeexec", "execwrite", "truncateinterpret",
                                        "xexe",      "interpre",  "renam",
                                        "unlinkat",  "wwrite"};
    for (const auto& entry : EventWords::OPERATION_WORDS) {
        const std::string word(entry.word);
        samples.push_back(word);
        samples.push_back("read" + word);
        samples.push_back(word + "read");
        samples.push_back(word.substr(0, word.size() - 1));
        samples.push_back(word.substr(1));
        std::string upper = word;
        upper[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(upper[0])));
        samples.push_back(upper);
    }
    return samples;
}

}  // namespace

TEST(EventWordsTest, OperationEventFollowsThePlainRuleOnChosenOperations) {
    for (const std::string& operation : operationSamples()) {
        EXPECT_EQ(plainOperationEvent(operation), EventWords::operationEvent(operation))
            << operation;
    }
}

TEST(EventWordsTest, OperationEventFollowsThePlainRuleOnRandomOperations) {
    std::mt19937 random(29);
    const std::string letters = "execintrpwuasludmEXWT ";
    std::uniform_int_distribution<std::size_t> letter(0, letters.size() - 1);
    std::uniform_int_distribution<int> length(0, 24);
    for (int i = 0; i < 100000; ++i) {
        std::string operation;
        for (int n = length(random); n > 0; --n) {
            operation.push_back(letters[letter(random)]);
        }
        ASSERT_EQ(plainOperationEvent(operation), EventWords::operationEvent(operation))
            << operation;
    }
}

TEST(EventWordsTest, WordsOfNamesEachKindsWordsInTableOrder) {
    EXPECT_EQ("exec/interpret", EventWords::wordsOf(EventType::EXECTL));
    EXPECT_EQ("write/truncate/setattr/unlink/rename", EventWords::wordsOf(EventType::FILECTL));
    EXPECT_EQ("", EventWords::wordsOf(EventType::NETCTL));
}

TEST(EventWordsTest, DecideFollowsThePlainRuleOnChosenWords) {
    const std::vector<std::string> samples = {"denied",
                                              "denied ",
                                              "denied:",
                                              "denied,",
                                              "DENIED",
                                              "detected",
                                              "detected\tx",
                                              "Detected:",
                                              "undetected",
                                              "deniedx",
                                              "detect",
                                              "detec",
                                              "allowed",
                                              "",
                                              ":denied",
                                              "granted denied",
                                              "denieddetected",
                                              "detecteddenied",
                                              "xdeniedx { write }"};
    for (const std::string& rest : samples) {
        std::string plainWord;
        std::string fastWord;
        EXPECT_EQ(plainDecision(rest, plainWord), fastDecision(rest, fastWord)) << rest;
        EXPECT_EQ(plainWord, fastWord) << rest;
    }
}

TEST(EventWordsTest, DecideFollowsThePlainRuleOnRandomWords) {
    std::mt19937 random(29);
    const std::string letters = "denitcDETI :\t,x";
    std::uniform_int_distribution<std::size_t> letter(0, letters.size() - 1);
    std::uniform_int_distribution<int> length(0, 16);
    for (int i = 0; i < 100000; ++i) {
        std::string rest;
        for (int n = length(random); n > 0; --n) {
            rest.push_back(letters[letter(random)]);
        }
        std::string plainWord;
        std::string fastWord;
        ASSERT_EQ(plainDecision(rest, plainWord), fastDecision(rest, fastWord)) << rest;
        ASSERT_EQ(plainWord, fastWord) << rest;
    }
}

TEST(EventWordsTest, EachClassificationHasItsWordAndUnknownNone) {
    EXPECT_EQ("exectl", EventWords::eventWord(EventType::EXECTL));
    EXPECT_EQ("filectl", EventWords::eventWord(EventType::FILECTL));
    EXPECT_EQ("netctl", EventWords::eventWord(EventType::NETCTL));
    EXPECT_EQ("", EventWords::eventWord(EventType::UNKNOWN));
    EXPECT_EQ("enforcing", EventWords::statusWord(StatusType::ENFORCING));
    EXPECT_EQ("permissive", EventWords::statusWord(StatusType::PERMISSIVE));
    EXPECT_EQ("", EventWords::statusWord(StatusType::UNKNOWN));
}
