#include "support/ServiceRunner.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace testing_support {
namespace {

void makeDir(const std::string& path) {
    if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
        throw std::runtime_error("mkdir " + path + ": " + std::strerror(errno));
    }
}

// Everything the child needs is prepared before fork: after it, only system
// calls are made.
struct ChildPlan {
    std::string varLogSource;
    std::string etcOverlayOptions;
    std::string stdoutPath;
    std::string stderrPath;
    bool hideVarLog = false;
    bool readOnlyVarLog = false;
};

[[noreturn]] void childFail(const char* what) {
    const int error = errno;
    dprintf(2, "test harness: %s failed: %s\n", what, std::strerror(error));
    _exit(126);
}

void enterPrivateNamespace(const ChildPlan& plan) {
    if (unshare(CLONE_NEWNS) != 0) childFail("unshare");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) childFail("mount private");
    if (mount(plan.varLogSource.c_str(), "/var/log", nullptr, MS_BIND, nullptr) != 0) {
        childFail("bind /var/log");
    }
    if (plan.readOnlyVarLog &&
        mount(nullptr, "/var/log", nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
        childFail("remount /var/log read-only");
    }
    if (mount("overlay", "/etc", "overlay", 0, plan.etcOverlayOptions.c_str()) != 0) {
        childFail("overlay /etc");
    }
    if (plan.hideVarLog && mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0) {
        childFail("tmpfs /var");
    }
}

void redirectOutput(const ChildPlan& plan) {
    const int in = open("/dev/null", O_RDONLY);
    const int out = open(plan.stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(plan.stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || err < 0) childFail("open console files");
    dup2(in, 0);
    dup2(out, 1);
    dup2(err, 2);
    close(in);
    close(out);
    close(err);
}

// Each step of the probe, in the order the child takes them; its exit code
// is the index of the step that failed.
constexpr const char* PROBE_STEPS[] = {"",
                                       "unshare(CLONE_NEWNS)",
                                       "a private mount of /",
                                       "a tmpfs mount",
                                       "an overlay mount",
                                       "a trusted.overlay.opaque attribute"};

std::string probePrivateMounts() {
    TempDir dir;
    const std::string scratch = dir.file("scratch");
    const std::string lower = dir.file("lower");
    makeDir(scratch);
    makeDir(lower);
    const std::string upper = scratch + "/up";
    const std::string work = scratch + "/work";
    const std::string merged = scratch + "/merged";
    const std::string options = "lowerdir=" + lower + ",upperdir=" + upper + ",workdir=" + work;
    const pid_t child = fork();
    if (child < 0) {
        return std::string("fork: ") + std::strerror(errno);
    }
    if (child == 0) {
        const auto failed = [](int step) { _exit(step); };
        if (unshare(CLONE_NEWNS) != 0) failed(1);
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) failed(2);
        if (mount("tmpfs", scratch.c_str(), "tmpfs", 0, "mode=0755") != 0) failed(3);
        if (mkdir(upper.c_str(), 0755) != 0 || mkdir(work.c_str(), 0755) != 0 ||
            mkdir(merged.c_str(), 0755) != 0 ||
            mount("overlay", merged.c_str(), "overlay", 0, options.c_str()) != 0) {
            failed(4);
        }
        if (setxattr(lower.c_str(), "trusted.overlay.opaque", "y", 1, 0) != 0) failed(5);
        _exit(0);
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) {
        return "the probe did not exit";
    }
    const int step = WEXITSTATUS(status);
    if (step == 0) return "";
    if (step >= static_cast<int>(std::size(PROBE_STEPS))) return "the probe failed";
    return std::string(PROBE_STEPS[step]) + " is not permitted (uid " + std::to_string(geteuid()) +
           ")";
}

}  // namespace

std::string privateMountsMissing() {
    static const std::string missing = probePrivateMounts();
    return missing;
}

ServiceRunner::ServiceRunner() {
    makeDir(dir_.file("varlog"));
    makeDir(dir_.file("etc-upper"));
    makeDir(dir_.file("etc-work"));
    makeDir(dir_.file("etc-upper/qirn"));
    // Without the privileges the test is skipped before the service starts.
    if (!privateMountsMissing().empty()) return;
    // Opaque, so that a configuration on the machine itself never leaks in.
    if (setxattr(dir_.file("etc-upper/qirn").c_str(), "trusted.overlay.opaque", "y", 1, 0) != 0) {
        throw std::runtime_error(std::string("setxattr: ") + std::strerror(errno));
    }
}

ServiceRunner::~ServiceRunner() {
    if (!reaped_ && pid_ > 0) {
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
}

std::string ServiceRunner::varLog(const std::string& name) const {
    return dir_.file("varlog/" + name);
}

std::string ServiceRunner::etcQirn(const std::string& name) const {
    return dir_.file("etc-upper/qirn/" + name);
}

void ServiceRunner::writeConfig(const std::string& content) {
    writeFile(etcQirn("qirn-log-converter.conf"), content);
}

void ServiceRunner::start(const ServiceOptions& options) {
    ChildPlan plan;
    plan.varLogSource = dir_.file("varlog");
    plan.etcOverlayOptions =
        "lowerdir=/etc,upperdir=" + dir_.file("etc-upper") + ",workdir=" + dir_.file("etc-work");
    plan.stdoutPath = dir_.file("stdout.txt");
    plan.stderrPath = dir_.file("stderr.txt");
    plan.hideVarLog = options.hideVarLog;
    plan.readOnlyVarLog = options.readOnlyVarLog;

    std::vector<std::string> argStrings{options.binary};
    argStrings.insert(argStrings.end(), options.args.begin(), options.args.end());
    std::vector<std::string> envStrings{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "TZ=" + options.tz,
                                        "LC_ALL=C"};
    // Sanitizer settings of the test run apply to the service as well.
    for (const char* name : {"ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS", "LSAN_OPTIONS"}) {
        if (const char* value = std::getenv(name)) {
            envStrings.push_back(std::string(name) + "=" + value);
        }
    }
    for (const auto& [name, value] : options.extraEnv) {
        envStrings.push_back(name + "=" + value);
    }
    std::vector<char*> argv;
    for (auto& arg : argStrings) argv.push_back(arg.data());
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& env : envStrings) envp.push_back(env.data());
    envp.push_back(nullptr);

    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (child == 0) {
        redirectOutput(plan);
        enterPrivateNamespace(plan);
        execve(argv[0], argv.data(), envp.data());
        childFail("execve");
    }
    pid_ = child;
    reaped_ = false;
}

bool ServiceRunner::isRunning() {
    if (reaped_) return false;
    int status = 0;
    const pid_t result = waitpid(pid_, &status, WNOHANG);
    if (result == pid_) {
        reaped_ = true;
        exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return false;
    }
    return true;
}

void ServiceRunner::sendSignal(int signum) {
    if (!reaped_ && pid_ > 0) {
        kill(pid_, signum);
    }
}

bool ServiceRunner::pause(std::chrono::milliseconds timeout) {
    sendSignal(SIGSTOP);
    const std::string tasks = "/proc/" + std::to_string(pid_) + "/task";
    // Each thread's state is the field after the parenthesised command name.
    return waitUntil(
        [&tasks] {
            std::error_code error;
            for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
                const std::string stat = readFile(task.path().string() + "/stat");
                const std::size_t close = stat.rfind(')');
                if (close == std::string::npos || close + 2 >= stat.size() ||
                    stat[close + 2] != 'T') {
                    return false;
                }
            }
            return !error;
        },
        timeout);
}

void ServiceRunner::resume() { sendSignal(SIGCONT); }

bool ServiceRunner::waitForExit(std::chrono::milliseconds timeout, int* exitCode) {
    const bool ended = waitUntil([this] { return !isRunning(); }, timeout);
    if (ended && exitCode != nullptr) {
        *exitCode = exitCode_;
    }
    return ended;
}

int ServiceRunner::stop(std::chrono::milliseconds timeout) {
    sendSignal(SIGTERM);
    int code = -1;
    return waitForExit(timeout, &code) ? code : -1;
}

std::string ServiceRunner::stdoutText() const { return readFile(dir_.file("stdout.txt")); }

std::string ServiceRunner::stderrText() const { return readFile(dir_.file("stderr.txt")); }

std::vector<std::string> ServiceRunner::diagLines() const { return readLines(diagPath()); }

std::vector<std::string> ServiceRunner::diagMessages() const {
    return stripTimestamps(diagLines());
}

bool ServiceRunner::waitForDiag(const std::string& part, std::chrono::milliseconds timeout,
                                int count) {
    return waitUntil([&] { return countSubstring(diagLines(), part) >= count; }, timeout);
}

bool ServiceRunner::waitForStdout(const std::string& part, std::chrono::milliseconds timeout) {
    return waitUntil([&] { return stdoutText().find(part) != std::string::npos; }, timeout);
}

bool ServiceRunner::waitForOutputLines(size_t count, std::chrono::milliseconds timeout) {
    return waitUntil([&] { return readLines(outputPath()).size() >= count; }, timeout);
}

bool ServiceRunner::waitUntilMonitoring(std::chrono::milliseconds timeout) {
    return waitForDiag("Monitor thread started for ", timeout);
}

PrivateRootResult runInPrivateRoot(const std::function<int()>& body) {
    TempDir console;
    const std::string stdoutPath = console.file("stdout.txt");
    const std::string stderrPath = console.file("stderr.txt");
    const std::string scratch = console.file("scratch");
    makeDir(scratch);
    const std::string upper = scratch + "/up";
    const std::string work = scratch + "/work";
    const std::string merged = scratch + "/merged";
    const std::string options = "lowerdir=/,upperdir=" + upper + ",workdir=" + work;
    const std::string mergedDev = merged + "/dev";

    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (child == 0) {
        ChildPlan plan;
        plan.stdoutPath = stdoutPath;
        plan.stderrPath = stderrPath;
        redirectOutput(plan);
        if (unshare(CLONE_NEWNS) != 0) childFail("unshare");
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) childFail("private");
        // The upper layer lives on a tmpfs so that it is not inside the lower one.
        if (mount("tmpfs", scratch.c_str(), "tmpfs", 0, "mode=0755") != 0) childFail("tmpfs");
        if (mkdir(upper.c_str(), 0755) != 0 || mkdir(work.c_str(), 0755) != 0 ||
            mkdir(merged.c_str(), 0755) != 0) {
            childFail("mkdir");
        }
        if (mount("overlay", merged.c_str(), "overlay", 0, options.c_str()) != 0) {
            childFail("overlay /");
        }
        if (mount("/dev", mergedDev.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
            childFail("bind /dev");
        }
        if (chroot(merged.c_str()) != 0 || chdir("/") != 0) childFail("chroot");
        const int code = body();
        std::fflush(nullptr);
        _exit(code);
    }
    int status = 0;
    waitpid(child, &status, 0);
    PrivateRootResult result;
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.stdoutText = readFile(stdoutPath);
    result.stderrText = readFile(stderrPath);
    return result;
}

}  // namespace testing_support
