#pragma once
// The command line of qirn-log-convert: its options, their checks and the
// usage text.

#include <cstdint>
#include <string>
#include <vector>

class ConvertOptions {
public:
    enum class Explain { NONE, SKIPPED, ALL };
    enum class Format { LINE, JSON };
    enum class Outcome { RUN, HELP, VERSION, USAGE_ERROR };

    static constexpr int64_t DEFAULT_SETTLE_SECONDS = 60;

    // Fills the options from argv; on USAGE_ERROR, error() says why.
    Outcome parse(int argc, char** argv);
    const std::string& error() const { return error_; }
    static std::string usage();

    std::vector<std::string> inputs;  // InputStream::STANDARD_INPUT for standard input
    Explain explain = Explain::NONE;
    Format format = Format::LINE;
    std::vector<std::string> eventLogs;  // --reconcile
    bool hasSince = false;
    int64_t since = 0;
    bool hasUntil = false;
    int64_t until = 0;
    bool hasSettle = false;  // --settle given; with --reconcile a default applies
    int64_t settle = DEFAULT_SETTLE_SECONDS;
    std::string checkpoint;
    bool strict = false;
    bool quiet = false;

private:
    bool fail(const std::string& message);

    std::string error_;
};
