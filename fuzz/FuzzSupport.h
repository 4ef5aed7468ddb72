#pragma once
// Helpers shared by the fuzz targets: a check that crashes the run with a
// message (assert would vanish in an optimised build), a quiet diagnostic
// logger and a private scratch directory.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>

#include "logging/Logger.h"

#define FUZZ_CHECK(condition)                                                            \
    do {                                                                                 \
        if (!(condition)) {                                                              \
            std::fprintf(stderr, "fuzz check failed at %s:%d: %s\n", __FILE__, __LINE__, \
                         #condition);                                                    \
            std::abort();                                                                \
        }                                                                                \
    } while (false)

namespace fuzz_support {

// Diagnostic lines go to /dev/null, and the echo of ERROR lines on standard
// error is silenced, so that millions of rejected lines do not flood the run.
// Sanitizer and libFuzzer reports do not use std::cerr and stay visible.
inline void quietLogger() {
    Logger::getInstance().init("/dev/null", false);
    std::cerr.setstate(std::ios::badbit);
}

// A fresh directory under $TMPDIR (or /tmp) for the files a target creates,
// removed with its contents when the fuzzing run exits normally.
inline const std::string& scratchDirectory() {
    static const std::string directory = [] {
        const char* base = std::getenv("TMPDIR");
        std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qlc-fuzz-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        return pattern;
    }();
    static const bool cleanupRegistered = [] {
        std::atexit([] {
            std::error_code ignored;
            std::filesystem::remove_all(directory, ignored);
        });
        return true;
    }();
    (void)cleanupRegistered;
    return directory;
}

}  // namespace fuzz_support
