// The byte-level equivalents the converter uses, each pinned directly against
// the plain call it replaces: tolower and isspace of the C locale, std::stoll,
// string_view::find and find_first_of, over whole byte ranges, every position
// of a word-at-a-time read and the edges of the 64-bit range.

#include "converter/ByteScan.h"

#include <gtest/gtest.h>

#include <cctype>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

// What std::stoll says about `text`: false where it throws.
bool stollReads(const std::string& text, long long& value) {
    try {
        value = std::stoll(text);
        return true;
    } catch (const std::invalid_argument&) {
        return false;
    } catch (const std::out_of_range&) {
        return false;
    }
}

// The leading digits as std::stoull reads them, without the white space and
// sign that stoull would also accept.
bool digitsRead(const std::string& text, unsigned long long& value) {
    if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    try {
        value = std::stoull(text);
        return true;
    } catch (const std::out_of_range&) {
        return false;
    }
}

void expectIntegerLikeStoll(const std::string& text) {
    long long expected = 0;
    long long actual = 0;
    const bool expectedRead = stollReads(text, expected);
    ASSERT_EQ(expectedRead, ByteScan::parseLeadingInteger(text, actual)) << '"' << text << '"';
    if (expectedRead) {
        ASSERT_EQ(expected, actual) << '"' << text << '"';
    }
}

std::string randomText(std::mt19937& random, std::string_view alphabet, std::size_t most) {
    std::string text(random() % (most + 1), ' ');
    for (char& c : text) {
        c = alphabet[random() % alphabet.size()];
    }
    return text;
}

}  // namespace

TEST(ByteScanTest, LowerAndIsSpaceAreThoseOfTheCLocaleForAllBytes) {
    for (int byte = 0; byte < 256; ++byte) {
        const char c = static_cast<char>(byte);
        EXPECT_EQ(static_cast<char>(std::tolower(byte)), ByteScan::lower(c)) << byte;
        EXPECT_EQ(std::isspace(byte) != 0, ByteScan::isSpace(c)) << byte;
    }
}

TEST(ByteScanTest, LeadingIntegerIsReadLikeStollAtTheEdges) {
    const std::vector<std::string> texts = {"",
                                            " ",
                                            "+",
                                            "-",
                                            "x1",
                                            "0",
                                            "-0",
                                            "+7",
                                            " 42",
                                            "\t\n\v\f\r 5",
                                            "- 1",
                                            "1731676205",
                                            "1731676205.123",
                                            "1731676205123",
                                            "1234567",
                                            "12345678",
                                            "123456789",
                                            "1234567x",
                                            "99999999999999999",
                                            "999999999999999999",
                                            "9999999999999999999",
                                            "9223372036854775807",
                                            "9223372036854775808",
                                            "-9223372036854775808",
                                            "-9223372036854775809",
                                            "00000000000000000000000000001",
                                            "-00000000000000000000009",
                                            "99999999999999999999",
                                            "1e5",
                                            "0x10"};
    for (const std::string& text : texts) {
        expectIntegerLikeStoll(text);
    }
}

TEST(ByteScanTest, LeadingIntegerIsReadLikeStollAfterEveryByteAtEveryPlace) {
    const std::string digits = "1731676205123456789";
    for (std::size_t at = 0; at <= digits.size(); ++at) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string text = digits;
            text.insert(at, 1, static_cast<char>(byte));
            expectIntegerLikeStoll(text);
            expectIntegerLikeStoll(text.substr(0, at + 1));
        }
    }
}

TEST(ByteScanTest, LeadingIntegerIsReadLikeStollOnRandomTexts) {
    std::mt19937 random(20261124);
    for (int i = 0; i < 200000; ++i) {
        expectIntegerLikeStoll(randomText(random, "0123456789 +-.\t9", 24));
    }
}

TEST(ByteScanTest, LeadingUnsignedReadsTheLeadingDigitsWithinRange) {
    std::mt19937 random(7);
    std::vector<std::string> texts = {"",
                                      "x",
                                      " 1",
                                      "+1",
                                      "0",
                                      "4567)",
                                      "18446744073709551615",
                                      "18446744073709551616",
                                      "99999999999999999999:1"};
    for (int i = 0; i < 100000; ++i) {
        texts.push_back(randomText(random, "0123456789):x", 24));
    }
    for (const std::string& text : texts) {
        unsigned long long expected = 0;
        unsigned long long actual = 0;
        const bool expectedRead = digitsRead(text, expected);
        ASSERT_EQ(expectedRead, ByteScan::parseLeadingUnsigned(text, actual)) << text;
        if (expectedRead) {
            ASSERT_EQ(expected, actual) << text;
        }
    }
}

TEST(ByteScanTest, EightDigitsAcceptsOnlyDigitsAtEveryPlace) {
    for (std::size_t at = 0; at < ByteScan::WORD; ++at) {
        for (int byte = 0; byte < 256; ++byte) {
            std::string text = "31415926";
            text[at] = static_cast<char>(byte);
            std::uint64_t value = 0;
            const bool digit = byte >= '0' && byte <= '9';
            ASSERT_EQ(digit, ByteScan::eightDigits(text.data(), value)) << at << ' ' << byte;
            if (digit) {
                ASSERT_EQ(std::stoull(text), value) << text;
            }
        }
    }
}

TEST(ByteScanTest, FirstOfFindsWhatFindFirstOfFinds) {
    std::mt19937 random(11);
    for (int i = 0; i < 50000; ++i) {
        const std::string text = randomText(random, "ab ,:\t\x80\xff", 40);
        for (std::size_t from = 0; from <= text.size(); ++from) {
            const std::size_t found = std::string_view(text).find_first_of(" \t,:", from);
            ASSERT_EQ(found == std::string_view::npos ? text.size() : found,
                      (ByteScan::firstOf<' ', '\t', ',', ':'>(text, from)))
                << '"' << text << "\" from " << from;
        }
    }
}

TEST(ByteScanTest, FindThroughFindsWhatFindFinds) {
    std::mt19937 random(13);
    constexpr char NEEDLE[] = "audit(";
    for (int i = 0; i < 50000; ++i) {
        const std::string text = randomText(random, "audit(x", 40);
        for (std::size_t from = 0; from <= text.size() + 1; ++from) {
            ASSERT_EQ(std::string_view(text).find(NEEDLE, from),
                      ByteScan::findThrough<5>(text, NEEDLE, from))
                << '"' << text << "\" from " << from;
        }
    }
}

TEST(ByteScanTest, LoweredComparisonsAnswerAsALowerCasedCopyWould) {
    std::mt19937 random(17);
    for (int i = 0; i < 100000; ++i) {
        const std::string text = randomText(random, "dDeEnNiItT, ", 12);
        const std::string part = randomText(random, "deint", 4);
        const std::string lowered = ByteScan::lowerCopy(text);
        ASSERT_EQ(lowered.find(part) != std::string::npos, ByteScan::containsLowered(text, part))
            << text << ' ' << part;
        ASSERT_EQ(lowered == part, ByteScan::equalsLowered(text, part)) << text << ' ' << part;
        ASSERT_EQ(lowered.rfind(part, 0) == 0, ByteScan::startsWithLowered(text, part))
            << text << ' ' << part;
        ASSERT_EQ(lowered == ByteScan::lowerCopy(part), ByteScan::equalsIgnoringCase(text, part));
    }
}

TEST(ByteScanTest, LoweredWithoutSpaceDropsWhatIsSpaceDropsForAllBytes) {
    for (const std::size_t length : {std::size_t{3}, std::size_t{40}}) {
        for (int byte = 0; byte < 256; ++byte) {
            const std::string text = std::string(length, 'W') + static_cast<char>(byte) + "E";
            std::string expected;
            for (const char c : text) {
                if (std::isspace(static_cast<unsigned char>(c)) == 0) {
                    expected += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
                }
            }
            std::string actual = "left over";
            ByteScan::assignLoweredWithoutSpace(text, actual);
            EXPECT_EQ(expected, actual) << byte;
        }
    }
}
