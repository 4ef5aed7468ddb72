// qirn-log-convert: converts existing audit logs once with the service's own
// rules, explains every decision, and fills the gaps the service leaves.

#include <unistd.h>

#include <ctime>
#include <exception>
#include <iostream>

#include "companion/ConvertOptions.h"
#include "companion/ConvertRun.h"
#include "companion/ExitCode.h"

int main(int argc, char** argv) {
    // Converted times follow TZ exactly as the service's do.
    tzset();
    ConvertOptions options;
    switch (options.parse(argc, argv)) {
        case ConvertOptions::Outcome::HELP:
            std::cout << ConvertOptions::usage();
            return ExitCode::DONE;
        case ConvertOptions::Outcome::VERSION:
            std::cout << "qirn-log-convert " << QLC_VERSION << "\n";
            return ExitCode::DONE;
        case ConvertOptions::Outcome::USAGE_ERROR:
            std::cerr << "qirn-log-convert: " << options.error() << "\n"
                      << "Try 'qirn-log-convert --help' for more information.\n";
            return ExitCode::ERROR;
        case ConvertOptions::Outcome::RUN:
            break;
    }
    try {
        ConvertRun run(options, STDOUT_FILENO, STDERR_FILENO);
        return run.run();
    } catch (const std::exception& error) {
        std::cerr << "qirn-log-convert: " << error.what() << "\n";
        return ExitCode::ERROR;
    }
}
