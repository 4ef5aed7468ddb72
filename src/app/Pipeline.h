#pragma once
// Joins the working subsystems: the line callback that carries one input line
// through the converter to the writer, and the assembly and release of the
// converter, reader and writer that the entry point holds for the whole run.

#include <memory>
#include <string>

#include "converter/LogConverter.h"
#include "reader/LogReader.h"
#include "writer/LogWriter.h"

using WriterHolder = std::unique_ptr<LogWriter>;

// The callback captures the converter and the holder itself by reference, so
// it always reaches whatever writer the holder owns at the time of the call.
LogReader::LineCallback makeLineCallback(LogConverter& converter, WriterHolder& writerHolder);

// Builds the converter, reader and writer and starts following the input.
// Returns false after reporting the failure; the caller then exits with 1.
bool assemblePipeline(const std::string& inputPath, const std::string& outputPath, bool debug,
                      std::shared_ptr<LogReader>& reader, WriterHolder& writerHolder);

// Writer first, then the caller's reference to the reader. The monitor thread
// is neither stopped nor joined: it holds its own reference to the reader.
void releasePipeline(std::shared_ptr<LogReader>& reader, WriterHolder& writerHolder);
