// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva {

/// Builds a shell command line word by word: each is quoted, blanks between them.
class ArgsBuilder {
  public:
    explicit ArgsBuilder(const std::string& command);
    ArgsBuilder& operator<<(const char* word);
    ArgsBuilder& operator<<(const std::string& word);
    const std::string& str() const { return line_; }

  private:
    std::string line_;  // no stream: one that memory does not suffice for leaves words out
};

}  // namespace korva
