#pragma once
// Runs a command to its end with files for its standard streams, and hands
// back its exit status and what it printed. For the companion command, which
// touches only the files it is given.

#include <map>
#include <string>
#include <vector>

namespace testing_support {

struct CommandResult {
    int exitCode = -1;  // 128 + signal number when killed by a signal
    std::string stdoutText;
    std::string stderrText;
};

// `args` excludes the program. `stdinPath` empty: standard input is /dev/null.
// `env` entries are added to (or replace those of) the test's environment.
CommandResult runCommand(const std::string& program, const std::vector<std::string>& args,
                         const std::string& stdinPath = "",
                         const std::map<std::string, std::string>& env = {});

// The companion command built beside the tests, with TZ=UTC unless `env` says.
CommandResult runConvert(const std::vector<std::string>& args, const std::string& stdinPath = "",
                         const std::map<std::string, std::string>& env = {});

}  // namespace testing_support
