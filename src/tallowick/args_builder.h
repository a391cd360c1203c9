// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sstream>
#include <string>

namespace korva {

/// Builds a shell command line word by word: each is quoted, blanks between them.
class ArgsBuilder {
  public:
    explicit ArgsBuilder(const std::string& command);
    ArgsBuilder& operator<<(const char* word);
    ArgsBuilder& operator<<(const std::string& word);
    std::string str() const { return line_.str(); }

  private:
    std::ostringstream line_;
};

}  // namespace korva
