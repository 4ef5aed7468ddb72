#include "companion/EventRenderer.h"

#include "companion/FieldEscaper.h"

namespace {

// The hex fallback of a string field that was not valid UTF-8.
void appendHexField(std::string& out, std::string_view name, std::string_view value) {
    out += ",\"";
    out += name;
    out += "_hex\":\"";
    FieldEscaper::appendHex(out, value);
    out += '"';
}

// A JSON string field, with its hex fallback right beside it.
void appendJsonField(std::string& out, std::string_view name, std::string_view value) {
    out += '"';
    out += name;
    out += "\":";
    if (!FieldEscaper::appendJsonString(out, value)) {
        appendHexField(out, name, value);
    }
}

}  // namespace

void EventRenderer::appendRow(std::string& out, const std::string& source, LineJudge::Reason reason,
                              const std::string& detail) const {
    const bool isEvent = reason == LineJudge::Reason::EVENT;
    if (format_ == ConvertOptions::Format::JSON) {
        out += '{';
        appendJsonField(out, "source", source);
        out += isEvent ? ",\"verdict\":\"event\",\"reason\":null,"
                       : ",\"verdict\":\"skip\",\"reason\":\"";
        if (!isEvent) {
            out += LineJudge::reasonName(reason);
            out += "\",";
        }
        appendJsonField(out, "detail", detail);
        out += "}\n";
        return;
    }
    FieldEscaper::appendTabField(out, source);
    out += isEvent ? "\tevent\t" : "\tskip\t";
    out += LineJudge::reasonName(reason);
    out += '\t';
    FieldEscaper::appendTabField(out, detail);
    out += '\n';
}

void EventRenderer::appendEvent(std::string& out, const LineJudge::Verdict& verdict,
                                const LogConverter::AuditStamp& stamp) const {
    if (format_ == ConvertOptions::Format::LINE) {
        out += verdict.event;
        out += '\n';
        return;
    }
    const LogConverter::ParseResult& record = verdict.record;
    out += "{\"time\":";
    FieldEscaper::appendJsonString(out, record.timestamp);
    out += ",\"container_id\":";
    const bool containerValid = FieldEscaper::appendJsonString(out, record.containerId);
    out += ",\"event\":";
    FieldEscaper::appendJsonString(out, LogConverter::eventWord(record.eventType));
    out += ",\"path\":";
    const bool pathValid = FieldEscaper::appendJsonString(out, record.path);
    out += ",\"status\":";
    FieldEscaper::appendJsonString(out, LogConverter::statusWord(record.statusType));
    out += ",\"audit_seconds\":";
    out += std::to_string(stamp.seconds);
    out += ",\"serial\":";
    out += stamp.hasSerial ? std::to_string(stamp.serial) : "null";
    // The fallbacks follow the fields a reader expects in every event.
    if (!containerValid) {
        appendHexField(out, "container_id", record.containerId);
    }
    if (!pathValid) {
        appendHexField(out, "path", record.path);
    }
    out += "}\n";
}
