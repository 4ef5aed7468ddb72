#include "agent/BatchCutter.h"

#include <cstring>

#include "reader/LineCutter.h"

namespace {

void takeLine(const char* text, std::size_t length, BatchCutter::Cut& cut) {
    while (length >= BatchCutter::MAX_LINE_BYTES) {
        cut.unparsedLines.emplace_back(text, BatchCutter::MAX_LINE_BYTES);
        cut.unparsedReasons.push_back(BatchCutter::LONG_REASON);
        text += BatchCutter::MAX_LINE_BYTES;
        length -= BatchCutter::MAX_LINE_BYTES;
    }
    if (length == 0) {
        return;
    }
    if (std::memchr(text, '\0', length) != nullptr) {
        cut.unparsedLines.emplace_back(text, length);
        cut.unparsedReasons.push_back(BatchCutter::NUL_REASON);
    } else {
        cut.lines.emplace_back(text, length);
    }
}

}  // namespace

void BatchCutter::cut(const char* data, std::size_t size, std::size_t maxLines, Cut& cut) {
    cut = Cut{};
    const LineCutter::Walk walk = LineCutter::cutWhole(
        data, size, maxLines,
        [&](const char* text, std::size_t length) { takeLine(text, length, cut); });
    cut.consumed = static_cast<std::size_t>(walk.rest - data);
    cut.taken = walk.counted;
    // An unfinished line that is already too long is shipped as far as it goes.
    while (cut.taken < maxLines && size - cut.consumed >= MAX_LINE_BYTES) {
        takeLine(data + cut.consumed, MAX_LINE_BYTES, cut);
        cut.consumed += MAX_LINE_BYTES;
        ++cut.taken;
    }
}

bool BatchCutter::hasWhole(const char* data, std::size_t size) {
    return size >= MAX_LINE_BYTES || std::memchr(data, '\n', size) != nullptr;
}
