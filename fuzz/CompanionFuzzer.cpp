// Fuzz target: the companion command's line path over arbitrary file
// contents: the block reader with its carried-over lines (written to a file
// and read back, with a block split the input chooses), the judge of each
// line, and both escapings of what it reports.
//
// Checks beyond "no crash, no sanitizer report":
//  - the lines fed are exactly those the shared cutter gives for the whole
//    content at once, plus the final piece without newline;
//  - an explanation field holds no raw tab, newline or control character;
//  - a JSON string is valid UTF-8 with no raw control character;
//  - an event line reads back, by its anchors, to the key of the record it
//    came from (unless the container itself holds an ",Event=" anchor).

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "FuzzSupport.h"
#include "common/EventLine.h"
#include "companion/FieldEscaper.h"
#include "companion/InputStream.h"
#include "companion/LineJudge.h"
#include "companion/LineSource.h"
#include "reader/LineCutter.h"

namespace {

constexpr std::size_t MAX_FUZZ_BLOCK = 64;

bool validUtf8WithoutControls(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x20) {
            return false;
        }
        std::size_t length = 1;
        if (byte >= 0xF0) {
            length = 4;
        } else if (byte >= 0xE0) {
            length = 3;
        } else if (byte >= 0xC0) {
            length = 2;
        } else if (byte >= 0x80) {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            if ((static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

bool tabFieldIsClean(std::string_view text) {
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F) {
            return false;
        }
    }
    return true;
}

std::vector<std::string> expectedLines(const std::string& content) {
    std::vector<std::string> lines;
    const std::string buffer = content + '\0';
    const LineCutter::Walk walk = LineCutter::cut(buffer.data(), content.size(), SIZE_MAX,
                                                  [&](const char* text, std::size_t length) {
                                                      lines.emplace_back(text, length);
                                                      return true;
                                                  });
    const char* end = buffer.data() + content.size();
    if (walk.rest < end) {
        lines.emplace_back(walk.rest, LineCutter::textLength(
                                          walk.rest, static_cast<std::size_t>(end - walk.rest)));
    }
    return lines;
}

void checkVerdict(const LineJudge::Verdict& verdict) {
    std::string field;
    FieldEscaper::appendTabField(field, verdict.detail);
    FieldEscaper::appendTabField(field, verdict.event);
    FUZZ_CHECK(tabFieldIsClean(field));
    if (verdict.reason != LineJudge::Reason::EVENT) {
        return;
    }
    for (const std::string* text : {&verdict.record.containerId, &verdict.record.path}) {
        std::string json;
        FieldEscaper::appendJsonString(json, *text);
        FUZZ_CHECK(validUtf8WithoutControls(json));
    }
    if (verdict.record.containerId.find(",Event=") == std::string::npos) {
        EventLine::Fields fields;
        FUZZ_CHECK(EventLine::parse(verdict.event, fields));
        FUZZ_CHECK(EventLine::key(fields) ==
                   EventLine::key(verdict.record.containerId, verdict.record.path,
                                  verdict.event.substr(0, EventLine::TIME_LENGTH)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    fuzz_support::quietLogger();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    static LineJudge judge(true);
    if (size == 0) {
        return 0;
    }
    // The first byte chooses the block size, so that lines span blocks.
    const std::size_t blockSize = 1 + data[0] % MAX_FUZZ_BLOCK;
    const std::string content(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string path = fuzz_support::scratchDirectory() + "/input";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;

    InputStream input(path);
    FUZZ_CHECK(input.open());
    LineSource source(input, 0, 1, true, blockSize);
    std::vector<std::string> fed;
    std::string text;
    LineJudge::Verdict verdict;
    FUZZ_CHECK(source.run([&](const LineSource::Line& line) {
        text.assign(line.text, line.length);
        fed.push_back(text);
        judge.parse(text, verdict);
        // The shortcut that spares the copy of most lines answers as the
        // whole judgement does.
        FUZZ_CHECK(LineJudge::isOtherType(text) == (verdict.reason == LineJudge::Reason::TYPE));
        if (verdict.reason == LineJudge::Reason::EVENT) {
            judge.emit(verdict);
        }
        checkVerdict(verdict);
        judge.takeStrayLines();
        return true;
    }));
    FUZZ_CHECK(fed == expectedLines(content));
    return 0;
}
