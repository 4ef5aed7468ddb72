#include "companion/ConvertOptions.h"

#include <getopt.h>

#include <algorithm>
#include <cctype>
#include <string>

#include "companion/ExitCode.h"
#include "companion/InputStream.h"
#include "companion/TimeArgument.h"

namespace {

// Past every byte, so that no long-only option takes a short option's value.
enum LongOnly {
    OPTION_EXPLAIN = 256,
    OPTION_FORMAT,
    OPTION_RECONCILE,
    OPTION_SINCE,
    OPTION_UNTIL,
    OPTION_SETTLE,
    OPTION_CHECKPOINT,
    OPTION_STRICT,
    OPTION_VERSION,
};

// "--name" of a long option by its value, or "-c" of a short one.
std::string optionName(const struct option* options, int value) {
    for (; options->name != nullptr; ++options) {
        if (options->val == value) {
            return std::string("--") + options->name;
        }
    }
    return std::string("-") + static_cast<char>(value);
}

// Options whose value one run can use only once; --reconcile adds up, and a
// flag given twice means what it means once.
bool takesOneValue(int option) {
    switch (option) {
        case OPTION_EXPLAIN:
        case OPTION_FORMAT:
        case OPTION_SINCE:
        case OPTION_UNTIL:
        case OPTION_SETTLE:
        case OPTION_CHECKPOINT:
            return true;
        default:
            return false;
    }
}

// What getopt refused, named as the user wrote it.
std::string unknownOption(const struct option* options, const std::string& given) {
    if (optopt != 0) {
        // A known option getopt refused: a value given to one that takes none.
        const std::string name = optionName(options, optopt);
        if (given.rfind("--", 0) == 0 && given.find('=') != std::string::npos) {
            return name + " takes no value, not '" + given + "'";
        }
        return "unknown option '" + name + "'";
    }
    const std::string name = given.substr(0, given.find('='));
    return "unknown or ambiguous option '" + name + "'";
}

// Up to about 30,000 years of seconds.
constexpr std::size_t MAX_SETTLE_DIGITS = 12;

}  // namespace

bool ConvertOptions::fail(const std::string& message) {
    error_ = message;
    return false;
}

ConvertOptions::Outcome ConvertOptions::parse(int argc, char** argv) {
    static const struct option LONG_OPTIONS[] = {
        {"explain", optional_argument, nullptr, OPTION_EXPLAIN},
        {"format", required_argument, nullptr, OPTION_FORMAT},
        {"reconcile", required_argument, nullptr, OPTION_RECONCILE},
        {"since", required_argument, nullptr, OPTION_SINCE},
        {"until", required_argument, nullptr, OPTION_UNTIL},
        {"settle", required_argument, nullptr, OPTION_SETTLE},
        {"checkpoint", required_argument, nullptr, OPTION_CHECKPOINT},
        {"strict", no_argument, nullptr, OPTION_STRICT},
        {"quiet", no_argument, nullptr, 'q'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, OPTION_VERSION},
        {nullptr, 0, nullptr, 0},
    };
    std::vector<int> given;
    optind = 0;  // also resets getopt's state, so that parse can run again
    opterr = 0;
    for (;;) {
        // The leading ':' makes a missing value ':' rather than '?'.
        const int option = getopt_long(argc, argv, ":qh", LONG_OPTIONS, nullptr);
        if (option == -1) {
            break;
        }
        const std::string value = optarg != nullptr ? optarg : "";
        // A second value would silently replace the first.
        if (takesOneValue(option)) {
            if (std::find(given.begin(), given.end(), option) != given.end()) {
                fail(optionName(LONG_OPTIONS, option) + " given twice");
                return Outcome::USAGE_ERROR;
            }
            given.push_back(option);
        }
        switch (option) {
            case OPTION_EXPLAIN:
                if (optarg == nullptr || value == "skipped") {
                    explain = Explain::SKIPPED;
                } else if (value == "all") {
                    explain = Explain::ALL;
                } else {
                    fail("--explain takes skipped or all, not '" + value + "'");
                    return Outcome::USAGE_ERROR;
                }
                break;
            case OPTION_FORMAT:
                if (value == "line") {
                    format = Format::LINE;
                } else if (value == "json") {
                    format = Format::JSON;
                } else {
                    fail("--format takes line or json, not '" + value + "'");
                    return Outcome::USAGE_ERROR;
                }
                break;
            case OPTION_RECONCILE:
                eventLogs.push_back(value);
                break;
            case OPTION_SINCE:
            case OPTION_UNTIL: {
                int64_t seconds = 0;
                if (!TimeArgument::parse(value, seconds)) {
                    fail(std::string(option == OPTION_SINCE ? "--since" : "--until") +
                         ": not seconds since the epoch or an ISO 8601 date-time: '" + value + "'");
                    return Outcome::USAGE_ERROR;
                }
                (option == OPTION_SINCE ? hasSince : hasUntil) = true;
                (option == OPTION_SINCE ? since : until) = seconds;
                break;
            }
            case OPTION_SETTLE:
                if (!TimeArgument::parseCount(value, MAX_SETTLE_DIGITS, settle)) {
                    fail("--settle takes a number of seconds, not '" + value + "'");
                    return Outcome::USAGE_ERROR;
                }
                hasSettle = true;
                break;
            case OPTION_CHECKPOINT:
                checkpoint = value;
                if (checkpoint.empty()) {
                    fail("--checkpoint needs a file name");
                    return Outcome::USAGE_ERROR;
                }
                break;
            case OPTION_STRICT:
                strict = true;
                break;
            case 'q':
                quiet = true;
                break;
            case 'h':
                return Outcome::HELP;
            case OPTION_VERSION:
                return Outcome::VERSION;
            case ':':
                fail(optionName(LONG_OPTIONS, optopt) + " needs a value");
                return Outcome::USAGE_ERROR;
            default:
                fail(unknownOption(LONG_OPTIONS,
                                   optind > 0 && optind <= argc ? argv[optind - 1] : ""));
                return Outcome::USAGE_ERROR;
        }
    }
    for (int i = optind; i < argc; ++i) {
        inputs.emplace_back(argv[i]);
    }
    if (inputs.empty()) {
        inputs.emplace_back(InputStream::STANDARD_INPUT);
    }
    if (!checkpoint.empty() && explain != Explain::NONE) {
        // An explanation converts nothing, so it has no progress to record;
        // reading from the checkpoint without moving it would surprise either way.
        fail("--explain cannot be used with --checkpoint: explaining converts nothing to record");
        return Outcome::USAGE_ERROR;
    }
    if (!checkpoint.empty()) {
        for (const std::string& input : inputs) {
            if (input == InputStream::STANDARD_INPUT) {
                fail("--checkpoint cannot be used with standard input");
                return Outcome::USAGE_ERROR;
            }
        }
    }
    if (hasSince && hasUntil && since > until) {
        fail("--since is later than --until");
        return Outcome::USAGE_ERROR;
    }
    return Outcome::RUN;
}

std::string ConvertOptions::usage() {
    const auto code = [](int status) { return std::to_string(status); };
    return "Usage: qirn-log-convert [OPTIONS] [FILE...]\n"
           "Convert QIRN audit logs once, with the rules of qirn-log-converter(8).\n"
           "Reads the files in order (none or '-': standard input; '.gz' through zlib) and\n"
           "writes the converted events to standard output.\n"
           "\n"
           "  --explain[=skipped|all]  one tab-separated row per input line instead of\n"
           "                           events: source, event|skip, reason, detail\n"
           "                           (bare --explain: skipped lines only)\n"
           "  --reconcile EVENTLOG     write only events found in none of the event logs\n"
           "                           (repeatable; rotated and .gz logs allowed)\n"
           "  --settle SECONDS         leave out records newer than this many seconds\n"
           "                           (default " +
           std::to_string(DEFAULT_SETTLE_SECONDS) +
           " with --reconcile)\n"
           "  --since TIME, --until TIME\n"
           "                           limit by the record's audit time: seconds since the\n"
           "                           epoch or an ISO 8601 date-time\n"
           "  --checkpoint FILE        remember per file how far it was converted\n"
           "                           (regular files only; not with --explain)\n"
           "  --format=line|json       event lines as the service writes them, or JSON\n"
           "                           (with --explain: one JSON object per row)\n"
           "  --strict                 exit " +
           code(ExitCode::STRICT) +
           " when a line failed in a way that suggests a\n"
           "                           changed audit format\n"
           "  -q, --quiet              no summary on standard error\n"
           "  -h, --help               this text\n"
           "      --version            the version\n"
           "\n"
           "Exit status: " +
           code(ExitCode::DONE) + " done, " + code(ExitCode::NO_EVENT) +
           " no event written (plain conversion without\n"
           "--checkpoint), " +
           code(ExitCode::ERROR) + " usage or I/O error, " + code(ExitCode::STRICT) +
           " --strict found a suspicious line,\n" + code(ExitCode::UNMATCHED) +
           " --reconcile matched nothing in event logs of the same time (check TZ).\n"
           "See qirn-log-convert(1).\n";
}
