// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>

namespace korva::idn {

/// A failed conversion of an internationalised domain name: one of libidn's Idna_rc values.
class IdnaError : public std::exception {
  public:
    explicit IdnaError(int code) : code_(code) {}
    /// libidn's text for the code.
    const char* what() const noexcept override;

  private:
    int code_;
};

}  // namespace korva::idn
