#pragma once
// Counts what happened to the input lines and renders them for a person.

#include <array>
#include <cstdint>
#include <string>

#include "companion/LineJudge.h"

class Summary {
public:
    void count(LineJudge::Reason reason) { ++counts_[static_cast<std::size_t>(reason)]; }
    void lineRead() { ++linesRead_; }
    uint64_t countOf(LineJudge::Reason reason) const {
        return counts_[static_cast<std::size_t>(reason)];
    }
    uint64_t linesRead() const { return linesRead_; }
    uint64_t events() const { return countOf(LineJudge::Reason::EVENT); }
    // The output failed after `linesOut` complete lines reached it: the
    // events are counted as written only as far as that.
    void outputFailed(uint64_t linesOut);
    // Lines read, events written, then each reason that occurred, aligned;
    // after an output failure, how far the output got.
    std::string render() const;

private:
    std::array<uint64_t, LineJudge::REASON_COUNT> counts_{};
    uint64_t linesRead_ = 0;
    bool outputFailed_ = false;
    uint64_t linesOut_ = 0;
};
