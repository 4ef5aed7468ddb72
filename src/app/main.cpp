// Entry point: settles the configuration, proves the diagnostic log can be
// written, assembles the pipeline and sleeps in the status loop until SIGINT
// or SIGTERM.

#include <malloc.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "app/Config.h"
#include "app/Globals.h"
#include "app/Pipeline.h"
#include "app/SignalHandler.h"
#include "common/Sleep.h"
#include "logging/Logger.h"

std::atomic<bool> running{true};
std::atomic<int32_t> processedCount{0};

namespace {

// The status loop wakes once a second and reports every thirtieth wake-up.
constexpr std::chrono::seconds STATUS_TICK{1};
constexpr uint32_t STATUS_INTERVAL_TICKS = 30;

}  // namespace

int main(int argc, char* argv[]) {
    // One heap for all threads, so that the reader's trim after a load
    // (LogReader::returnMemoryAfterLoad) can shrink the heap its buffers came
    // from: malloc_trim shrinks the main heap's top, not a thread's own heap.
    // Set here, before any thread exists, because it binds the whole process:
    // the reader lives in the library that the companion and the tests link,
    // and must not change their allocator behind their back.
    mallopt(M_ARENA_MAX, 1);  // NOLINT(cert-err33-c)
    // The previous dispositions are not kept: nothing ever restores them.
    signal(SIGINT, signalHandler);   // NOLINT(cert-err33-c)
    signal(SIGTERM, signalHandler);  // NOLINT(cert-err33-c)

    std::cout << "Starting QIRN Log Converter..." << std::endl;

    std::string inputPath = "/var/log/qirn_audit.log";
    std::string outputPath = "/var/log/zarvo_container.log";
    const std::string logPath = "/var/log/qirn-log-converter.log";
    const std::string configPath = "/etc/qirn/qirn-log-converter.conf";
    bool debug = false;

    if (loadConfig(configPath, inputPath, outputPath, debug)) {
        std::cout << "Loaded configuration from " << configPath << std::endl;
    } else {
        std::cout << "Using default configuration" << std::endl;
    }

    if (argc > 1) {
        inputPath = argv[1];
    }
    if (argc > 2) {
        outputPath = argv[2];
    }
    if (argc > 3) {
        debug = std::string(argv[3]) == "debug";
    }

    std::cout << "Config:" << std::endl;
    std::cout << "  Input:  " << inputPath << std::endl;
    std::cout << "  Output: " << outputPath << std::endl;
    std::cout << "  Debug:  " << (debug ? "yes" : "no") << std::endl;

    const std::string logDirectory = "/var/log";
    struct stat info {};
    if (stat(logDirectory.c_str(), &info) != 0) {
        std::cerr << "ERROR: Log directory " << logDirectory << " does not exist!" << std::endl;
        return 1;
    }

    {
        std::ofstream probe(logPath, std::ios::out | std::ios::app);
        if (probe.fail()) {
            std::cerr << "ERROR: Cannot write to log file: " << logPath << std::endl;
            std::cerr << "Please check permissions or run as root." << std::endl;
            return 1;
        }
    }

    try {
        Logger::getInstance().init(logPath, debug);
        std::cout << "Logger initialized successfully" << std::endl;
    } catch (const std::exception& e) {
        std::cerr << "ERROR: Failed to initialize logger: " << e.what() << std::endl;
        return 1;
    }

    Logger& logger = Logger::getInstance();
    logger.log(Logger::INFO, "========== QIRN Log Converter Started ==========");
    logger.log(Logger::INFO, "Input: " + inputPath);
    logger.log(Logger::INFO, "Output: " + outputPath);
    logger.log(Logger::INFO, std::string("Debug mode: ") + (debug ? "enabled" : "disabled"));

    std::shared_ptr<LogReader> reader;
    // Static so that it outlives main's frame: the detached monitor thread may
    // still run the line callback, which reaches the writer through this
    // holder, while the process is exiting.
    static WriterHolder writerHolder;
    if (!assemblePipeline(inputPath, outputPath, debug, reader, writerHolder)) {
        releasePipeline(reader, writerHolder);
        return 1;
    }

    const std::string runningMessage = "Log converter is running. Press Ctrl+C to stop.";
    const std::string scopeMessage =
        "Processing QIRN_AVC and QIRN_NETCTL logs with container_id field";
    logger.log(Logger::INFO, runningMessage);
    logger.log(Logger::INFO, scopeMessage);
    std::cout << runningMessage << std::endl;
    std::cout << scopeMessage << std::endl;

    uint32_t statusTick = 0;
    while (running.load()) {
        sleepResuming(STATUS_TICK);
        ++statusTick;
        if (statusTick % STATUS_INTERVAL_TICKS == 0) {
            logger.log(Logger::INFO, "Status: running, processed " +
                                         std::to_string(processedCount.load()) + " lines");
        }
    }

    logger.log(Logger::INFO, "========== Shutting down log converter ==========");
    logger.log(Logger::INFO, "Total lines processed: " + std::to_string(processedCount.load()));
    std::cout << "\nShutdown complete. Total processed lines: " << processedCount.load()
              << std::endl;

    releasePipeline(reader, writerHolder);
    return 0;
}
