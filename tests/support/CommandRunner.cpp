#include "support/CommandRunner.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "support/TestSupport.h"

extern char** environ;

namespace testing_support {

namespace {

constexpr int SIGNAL_EXIT_BASE = 128;

void redirect(const std::string& path, int target, int flags) {
    const int fd = open(path.c_str(), flags, 0600);
    if (fd < 0 || dup2(fd, target) < 0) {
        _exit(127);
    }
    close(fd);
}

}  // namespace

CommandResult runCommand(const std::string& program, const std::vector<std::string>& args,
                         const std::string& stdinPath,
                         const std::map<std::string, std::string>& env) {
    TempDir dir;
    const std::string outPath = dir.file("stdout");
    const std::string errPath = dir.file("stderr");
    const std::string inPath = stdinPath.empty() ? "/dev/null" : stdinPath;

    // Everything the child needs is built before fork.
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('='));
        if (env.count(name) == 0) {
            environment.push_back(text);
        }
    }
    for (const auto& [name, value] : env) {
        environment.push_back(name + "=" + value);
    }
    std::vector<char*> envp;
    for (std::string& text : environment) {
        envp.push_back(text.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> argvText{program};
    argvText.insert(argvText.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& text : argvText) {
        argv.push_back(text.data());
    }
    argv.push_back(nullptr);

    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (child == 0) {
        redirect(inPath, STDIN_FILENO, O_RDONLY);
        redirect(outPath, STDOUT_FILENO, O_WRONLY | O_CREAT | O_TRUNC);
        redirect(errPath, STDERR_FILENO, O_WRONLY | O_CREAT | O_TRUNC);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    CommandResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : SIGNAL_EXIT_BASE + WTERMSIG(status);
    result.stdoutText = readFile(outPath);
    result.stderrText = readFile(errPath);
    return result;
}

CommandResult runConvert(const std::vector<std::string>& args, const std::string& stdinPath,
                         const std::map<std::string, std::string>& env) {
    std::map<std::string, std::string> environment = env;
    environment.emplace("TZ", "UTC");
    return runCommand(QLC_CONVERT_PATH, args, stdinPath, environment);
}

}  // namespace testing_support
