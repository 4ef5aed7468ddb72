// Replays a workload file through the line callback, converter and writer
// once, line by line as the reader hands them on, for instruction counts:
//
//   valgrind --tool=callgrind --toggle-collect='*makeLineCallback*operator()*'
//            build/release/bench/Replay workload.log /tmp/events.log
//
// Prints the number of input lines and of lines written.

#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "app/Globals.h"
#include "app/Pipeline.h"
#include "logging/Logger.h"

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: Replay WORKLOAD OUTPUT" << std::endl;
        return 2;
    }
    const std::string output = argv[2];
    Logger::getInstance().init(output + ".diag", false);

    std::ifstream in(argv[1]);
    std::vector<std::string> lines;
    for (std::string text; std::getline(in, text);) {
        lines.push_back(text);
    }

    WriterHolder writer = std::make_unique<LogWriter>(output);
    const LogReader::LineCallback callback = makeLineCallback(LogConverter::getInstance(), writer);
    // One reused string, as the reader passes them on.
    std::string line;
    for (const std::string& text : lines) {
        line.assign(text);
        callback(line);
    }
    std::cout << lines.size() << " lines, " << processedCount.load() << " written" << std::endl;
    return 0;
}
