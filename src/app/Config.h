#pragma once
// The optional configuration file: key=value lines setting the input path, the
// output path and the debug switch. Settings it does not name keep the values
// the caller passed in.

#include <functional>
#include <string>

// Returns false, touching nothing, when the file cannot be opened for reading;
// true otherwise, whatever the file held.
bool loadConfig(const std::string& path, std::string& inputPath, std::string& outputPath,
                bool& debug);

// The same file syntax for another program's settings: calls `apply(key,
// value)` for every setting line, in order. Returns false when the file
// cannot be opened for reading.
bool forEachSetting(const std::string& path,
                    const std::function<void(const std::string&, const std::string&)>& apply);
