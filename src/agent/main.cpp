// qirn-fleet-agent: ships this host's event log and backfill log into the
// fleet's store under the host's own database role.

#include <malloc.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "agent/AgentConfig.h"
#include "agent/AgentLock.h"
#include "agent/FleetAgent.h"
#include "agent/HostIdentity.h"
#include "agent/PgStoreSession.h"

namespace {

constexpr int EXIT_USAGE = 2;
// A burst's read-ahead and batches are big blocks: mapped on their own and
// unmapped when freed, so an agent back to idle is small again.
constexpr int OWN_MAPPING_FROM = 256 * 1024;
constexpr int EXIT_CONFIG = 3;

std::atomic<FleetAgent*> runningAgent{nullptr};
// A stop asked for before the agent exists is kept for it.
volatile std::sig_atomic_t stopAsked = 0;

void onStopSignal(int) {
    stopAsked = 1;
    FleetAgent* agent = runningAgent.load();
    if (agent != nullptr) {
        agent->requestStop();
    }
}

void logLine(const std::string& line) {
    // One write per line, so lines from a dying agent never interleave.
    const std::string text = line + "\n";
    if (std::fwrite(text.data(), 1, text.size(), stderr) != text.size()) {
        return;
    }
    (void)std::fflush(stderr);
}

void installSignals() {
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    // A stop during start-up must not turn a file read into a failure.
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, nullptr);
}

}  // namespace

// Before anything slow: a stop at any moment of the start ends with status 0.
int main(int argc, char** argv) {
    installSignals();
    mallopt(M_MMAP_THRESHOLD, OWN_MAPPING_FROM);
    std::string configPath = AgentConfig::DEFAULT_PATH;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--config" && i + 1 < argc) {
            configPath = argv[++i];
        } else if (argument.rfind("--config=", 0) == 0) {
            configPath = argument.substr(std::strlen("--config="));
        } else {
            logLine("usage: qirn-fleet-agent [--config FILE]");
            return EXIT_USAGE;
        }
    }
    AgentConfig config;
    const Status loaded = AgentConfig::load(configPath, AgentConfig::SERVICE_CONFIG_PATH, config);
    if (!loaded.ok()) {
        logLine("cannot start: " + loaded.message());
        return EXIT_CONFIG;
    }
    for (const std::string& key : config.unknownKeys) {
        std::string warning = configPath;
        warning += ": unknown setting \"";
        warning += key;
        warning += "\" ignored";
        logLine(warning);
    }
    // Before the store is spoken to: the agent's name is the machine's, so
    // only the lock's holder may use it.
    AgentLock lock;
    const Status locked = lock.take(config.lockFile);
    if (!locked.ok()) {
        logLine("cannot start: " + locked.message());
        return EXIT_CONFIG;
    }
    if (stopAsked != 0) {
        logLine("stopped before starting");
        return 0;
    }
    const std::string agentName = HostIdentity::agentName();
    const std::string zone = HostIdentity::zone();
    logLine("qirn-fleet-agent " + agentName + " (zone " + zone + ") ships " + config.eventLog +
            " and " + config.backfillLog);
    PgStoreSession store(config.conninfo, agentName, zone);
    FleetAgent agent(config, store, logLine);
    runningAgent.store(&agent);
    if (stopAsked != 0) {
        agent.requestStop();
    }
    agent.run();
    runningAgent = nullptr;
    logLine("stopped");
    return 0;
}
