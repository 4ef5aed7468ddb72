#pragma once
// Small helpers shared by the unit and end-to-end tests: a private temporary
// directory, file helpers and polling with a timeout.

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace testing_support {

void writeFile(const std::string& path, const std::string& content);
void appendFile(const std::string& path, const std::string& content);
// Appends every line followed by a newline, in one write.
void appendLines(const std::string& path, const std::vector<std::string>& lines);
std::string readFile(const std::string& path);
// The file's lines without their newlines; an absent file gives no lines.
std::vector<std::string> readLines(const std::string& path);
bool fileExists(const std::string& path);
long long fileSize(const std::string& path);

// Polls the predicate every 10 ms until it holds or the timeout passes.
bool waitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds timeout);

// Lines of the diagnostic log without their "[timestamp] " prefix, e.g.
// "[INFO] Opened file ...". Lines that do not have the prefix are kept whole.
std::vector<std::string> stripTimestamps(const std::vector<std::string>& lines);
bool containsLine(const std::vector<std::string>& lines, const std::string& line);
bool containsSubstring(const std::vector<std::string>& lines, const std::string& part);
int countSubstring(const std::vector<std::string>& lines, const std::string& part);

// Closes whatever the logger had open and initialises it on `path`; usable
// more than once in one process.
void initLogger(const std::string& path, bool debug);

// Empties the converter's process-wide duplicate cache, so that a test starts
// as if no record had been seen. It watches for the cache's clearing message in
// `scratchLogPath`, where it leaves the logger with DEBUG on and the
// converter's trace off: the caller initialises the logger again afterwards.
// Returns false when no clearing was seen.
bool emptyDuplicateCache(const std::string& scratchLogPath);

}  // namespace testing_support
