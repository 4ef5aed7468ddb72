#pragma once
// How the run writes what it decided: an event as the service writes it or as
// a JSON object, and an explanation row as tab-separated fields or as JSON.
// A JSON string that is not valid UTF-8 gets its raw bytes in hexadecimal in
// a "<name>_hex" field beside it.

#include <string>
#include <string_view>

#include "companion/ConvertOptions.h"
#include "companion/LineJudge.h"
#include "converter/LogConverter.h"

class EventRenderer {
public:
    explicit EventRenderer(ConvertOptions::Format format) : format_(format) {}

    // Whether appendEvent needs the record's audit stamp.
    bool needsStamp() const { return format_ == ConvertOptions::Format::JSON; }
    // `source` is FILE:LINE of the line explained.
    void appendRow(std::string& out, const std::string& source, LineJudge::Reason reason,
                   const std::string& detail) const;
    void appendEvent(std::string& out, const LineJudge::Verdict& verdict,
                     const LogConverter::AuditStamp& stamp) const;

private:
    ConvertOptions::Format format_;
};
