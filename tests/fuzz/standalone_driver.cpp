// SPDX-License-Identifier: Apache-2.0
#include "fuzz/fuzz_target.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <vector>

namespace {

namespace fs = std::filesystem;

void runOver(const fs::path& path) {
    std::cerr << path.string() << std::endl;  // names the culprit when the next step crashes
    const std::string content = korva::test::readFile(path.string());
    // Exactly as long as the input, so that AddressSanitizer sees each byte read behind its end.
    const auto bytes = std::make_unique<std::uint8_t[]>(content.size());
    std::memcpy(bytes.get(), content.data(), content.size());
    LLVMFuzzerTestOneInput(bytes.get(), content.size());
}

std::vector<fs::path> filesOf(const fs::path& path) {
    if (!fs::is_directory(path)) {
        return {path};
    }
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(path)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

// Runs a fuzz target over files and over those of directories, where there is no libFuzzer to do it.
int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int index = 1; index < argc; ++index) {
        for (const fs::path& file : filesOf(argv[index])) {
            runOver(file);
            ++count;
        }
    }
    std::cerr << count << " inputs\n";
    return count > 0 ? 0 : 1;
}
