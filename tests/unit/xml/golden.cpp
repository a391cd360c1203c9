// SPDX-License-Identifier: Apache-2.0
#include "golden.h"

#include "support/files.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace korva::test {

void expectGolden(const std::string& name, const std::string& document) {
    const std::string path = GOLDEN_DIR "/" + name;
    if (std::getenv("TALLOWICK_REWRITE_GOLDEN") != nullptr) {
        writeFile(path, document);
        return;
    }
    EXPECT_EQ(document, readFile(path)) << "differs from " << path;
}

}  // namespace korva::test
