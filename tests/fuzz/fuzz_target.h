// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "support/files.h"
#include "support/temp_dir.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

/// What libFuzzer, or standalone_driver.cpp, calls with each input. Always returns 0.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace korva::fuzz {

/// Ends the process when something is not as it is to be for every input.
inline void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

inline std::string textOf(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// The path of a file that holds the input until the next call; it is removed when the process ends.
inline const std::string& fileOf(const std::uint8_t* data, std::size_t size) {
    static const test::TempDir directory;
    static const std::string path = directory / "input";
    test::writeFile(path, textOf(data, size));
    return path;
}

}  // namespace korva::fuzz
