#include "app/Pipeline.h"

#include <cstdint>
#include <exception>
#include <iostream>
#include <string>

#include "app/Globals.h"
#include "logging/Trace.h"

namespace {

constexpr int32_t PROGRESS_INTERVAL = 100;

// The callback's work for a line that is not rejected at once. Apart, and
// never inlined, so that the callback's frame stays small for the lines of
// other types, which are most of them.
[[gnu::noinline]] void handleLine(LogConverter& converter, WriterHolder& writerHolder,
                                  const std::string& line) {
    static int32_t outputCount = 0;

    const LogConverter::ParseResult result = converter.parseLine(line);
    if (!result.valid) {
        return;
    }
    const std::string outputLine = converter.convertToOutputFormat(result);
    if (outputLine.empty()) {
        return;
    }
    // The monitor thread outlives the writer, which is released at
    // shutdown without stopping it: a line arriving after that finds the
    // holder empty and is dropped instead of reaching a destroyed writer.
    LogWriter* writer = writerHolder.get();
    if (writer == nullptr) {
        return;
    }
    if (!writer->writeLine(outputLine)) {
        trace(Logger::ERROR, "Failed to write to output file");
        return;
    }
    processedCount.fetch_add(1);
    ++outputCount;
    if (outputCount % PROGRESS_INTERVAL == 0) {
        trace(Logger::INFO, "Processed " + std::to_string(outputCount) +
                                " lines (total: " + std::to_string(processedCount.load()) + ")");
    }
}

}  // namespace

LogReader::LineCallback makeLineCallback(LogConverter& converter, WriterHolder& writerHolder) {
    return [&converter, &writerHolder](const std::string& line) {
        // parseLine would give an invalid record and do nothing else.
        if (converter.rejectsAtOnce(line)) {
            return;
        }
        handleLine(converter, writerHolder, line);
    };
}

bool assemblePipeline(const std::string& inputPath, const std::string& outputPath, bool debug,
                      std::shared_ptr<LogReader>& reader, WriterHolder& writerHolder) {
    LogConverter::setDebugMode(debug);
    LogConverter& converter = LogConverter::getInstance();

    try {
        reader = LogReader::create(inputPath);
        // Owned by the holder alone; the callback reaches it only through the holder.
        writerHolder = std::make_unique<LogWriter>(outputPath);
        trace(Logger::INFO, "Reader and writer initialized successfully");
    } catch (const std::exception& e) {
        trace(Logger::ERROR, std::string("Failed to initialize: ") + e.what());
        std::cerr << "ERROR: " << e.what() << std::endl;
        return false;
    }

    if (!reader->startMonitoring(makeLineCallback(converter, writerHolder))) {
        trace(Logger::ERROR, "Failed to start monitoring");
        std::cerr << "ERROR: Failed to start monitoring input file" << std::endl;
        return false;
    }
    return true;
}

void releasePipeline(std::shared_ptr<LogReader>& reader, WriterHolder& writerHolder) {
    writerHolder.reset();
    reader.reset();
}
