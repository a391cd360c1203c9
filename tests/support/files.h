// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace korva::test {

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content << std::flush;
    if (!file) {
        throw std::runtime_error("cannot write " + path);
    }
}

inline std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace korva::test
