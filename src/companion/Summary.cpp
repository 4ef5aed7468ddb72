#include "companion/Summary.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t INDENT = 2;
constexpr std::size_t COLUMN_GAP = 2;

}  // namespace

void Summary::outputFailed(uint64_t linesOut) {
    outputFailed_ = true;
    linesOut_ = linesOut;
}

std::string Summary::render() const {
    std::vector<std::pair<std::string, uint64_t>> rows;
    rows.emplace_back("lines read", linesRead_);
    // Each event is one line of output, so the lines that got out are the
    // events that did.
    rows.emplace_back("events written", outputFailed_ ? std::min(linesOut_, events()) : events());
    if (outputFailed_) {
        rows.emplace_back("events not written", events() - std::min(linesOut_, events()));
    }
    uint64_t skipped = 0;
    for (std::size_t i = 0; i < LineJudge::REASON_COUNT; ++i) {
        if (i != static_cast<std::size_t>(LineJudge::Reason::EVENT)) {
            skipped += counts_[i];
        }
    }
    rows.emplace_back("lines skipped", skipped);
    for (std::size_t i = 0; i < LineJudge::REASON_COUNT; ++i) {
        const auto reason = static_cast<LineJudge::Reason>(i);
        if (reason != LineJudge::Reason::EVENT && counts_[i] > 0) {
            rows.emplace_back(std::string(INDENT, ' ') + LineJudge::reasonName(reason), counts_[i]);
        }
    }
    std::size_t labelWidth = 0;
    std::size_t numberWidth = 0;
    for (const auto& [label, value] : rows) {
        labelWidth = std::max(labelWidth, label.size());
        numberWidth = std::max(numberWidth, std::to_string(value).size());
    }
    std::string text;
    for (const auto& [label, value] : rows) {
        const std::string number = std::to_string(value);
        text += label;
        text.append(labelWidth - label.size() + COLUMN_GAP + numberWidth - number.size(), ' ');
        text += number;
        text += '\n';
    }
    if (outputFailed_) {
        text += "output failed after " + std::to_string(linesOut_) + " lines\n";
    }
    return text;
}
