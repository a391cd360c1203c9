// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <streambuf>

namespace korva {

/// A stream buffer that passes everything on at once: the classes below it say where, in xsputn().
class SinkBuffer : public std::streambuf {
  protected:
    int_type overflow(int_type c) override {
        const char byte = traits_type::to_char_type(c);
        const bool taken = traits_type::eq_int_type(c, traits_type::eof()) || xsputn(&byte, 1) == 1;
        return taken ? traits_type::not_eof(c) : traits_type::eof();
    }
};

}  // namespace korva
