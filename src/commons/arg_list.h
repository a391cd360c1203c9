// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace korva {

/// An argument vector in the form that execvp(3) takes: owned strings, a null pointer behind the last.
class ArgList {
  public:
    ArgList() = default;
    ArgList(const ArgList&) = delete;
    ArgList& operator=(const ArgList&) = delete;
    ~ArgList();

    /// Appends a copy of `argument`.
    ArgList& operator<<(const std::string& argument);

    /// Valid until the list changes or ends.
    char* const* argv() const { return arguments_.data(); }

    /// The arguments joined by single blanks, each quoted for the POSIX shell, an empty one as ''.
    std::string getStringRepresentation() const;

  private:
    std::vector<char*> arguments_{nullptr};
};

}  // namespace korva
