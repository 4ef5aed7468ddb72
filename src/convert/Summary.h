#pragma once
// Counts what happened to the input lines and renders them for a person.

#include <array>
#include <cstdint>
#include <string>

#include "convert/LineJudge.h"

class Summary {
public:
    void count(LineJudge::Reason reason) { ++counts_[static_cast<std::size_t>(reason)]; }
    void uncount(LineJudge::Reason reason) { --counts_[static_cast<std::size_t>(reason)]; }
    void lineRead() { ++linesRead_; }
    uint64_t countOf(LineJudge::Reason reason) const {
        return counts_[static_cast<std::size_t>(reason)];
    }
    uint64_t linesRead() const { return linesRead_; }
    uint64_t events() const { return countOf(LineJudge::Reason::EVENT); }
    // Lines read, events written, then each reason that occurred, aligned.
    std::string render() const;

private:
    std::array<uint64_t, LineJudge::REASON_COUNT> counts_{};
    uint64_t linesRead_ = 0;
};
