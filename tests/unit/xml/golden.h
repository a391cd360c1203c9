// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva::test {

/// Expects a document to be, byte for byte, the one of this name in tests/data/xml. With the environment
/// variable TALLOWICK_REWRITE_GOLDEN set, writes the latter instead.
void expectGolden(const std::string& name, const std::string& document);

}  // namespace korva::test
