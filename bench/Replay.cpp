// Replays a workload file through the real reader, line callback, converter
// and writer on one thread, deterministically, for instruction counts: the
// workload is appended to a fresh input file in chunks of a fixed number of
// lines and each chunk is taken in with one LogReader::readNewLines call, as
// one poll of the monitor thread would. bench/instructions runs it under
// callgrind, collecting inside readNewLines only:
//
//   env -i TZ=UTC valgrind --tool=callgrind --toggle-collect='LogReader::readNewLines*'
//       build/release/bench/Replay workload.log /tmp/replay 6000
//
// Prints the number of input lines, of reads and of lines written.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/Globals.h"
#include "app/Pipeline.h"
#include "logging/Logger.h"

namespace {

constexpr std::size_t DEFAULT_CHUNK_LINES = 6000;

bool appendAll(int fd, const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t written = write(fd, data.data() + done, data.size() - done);
        if (written <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3 && argc != 4) {
        std::cerr << "usage: Replay WORKLOAD DIRECTORY [LINES_PER_CHUNK]" << std::endl;
        return 2;
    }
    const std::string directory = argv[2];
    const std::size_t chunkLines =
        argc == 4 ? static_cast<std::size_t>(std::strtoul(argv[3], nullptr, 10))
                  : DEFAULT_CHUNK_LINES;
    if (chunkLines == 0) {
        std::cerr << "LINES_PER_CHUNK must be positive" << std::endl;
        return 2;
    }
    mkdir(directory.c_str(), 0755);
    const std::string input = directory + "/input.log";
    const std::string output = directory + "/output.log";
    unlink(input.c_str());
    unlink(output.c_str());

    // The chunks are cut before anything is measured.
    std::ifstream in(argv[1]);
    std::vector<std::string> chunks;
    std::size_t lineCount = 0;
    std::string chunk;
    std::size_t inChunk = 0;
    for (std::string text; std::getline(in, text);) {
        chunk += text;
        chunk += '\n';
        ++lineCount;
        if (++inChunk == chunkLines) {
            chunks.push_back(chunk);
            chunk.clear();
            inChunk = 0;
        }
    }
    if (!chunk.empty()) {
        chunks.push_back(chunk);
    }

    Logger::getInstance().init(directory + "/diagnostic.log", false);
    const int fd = open(input.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    if (fd < 0) {
        std::cerr << "cannot create " << input << std::endl;
        return 1;
    }
    WriterHolder writer = std::make_unique<LogWriter>(output);
    const LogReader::LineCallback callback = makeLineCallback(LogConverter::getInstance(), writer);
    const std::shared_ptr<LogReader> reader = LogReader::create(input);
    if (!reader->openFile()) {
        std::cerr << "cannot open " << input << std::endl;
        return 1;
    }
    std::size_t reads = 0;
    for (const std::string& data : chunks) {
        if (!appendAll(fd, data)) {
            std::cerr << "cannot append to " << input << std::endl;
            return 1;
        }
        if (!reader->readNewLines(callback, true)) {
            std::cerr << "read " << reads + 1 << " failed" << std::endl;
            return 1;
        }
        ++reads;
    }
    close(fd);
    std::cout << lineCount << " lines, " << reads << " reads, " << processedCount.load()
              << " written" << std::endl;
    return 0;
}
