// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <streambuf>

namespace korva {

/// A stream that takes everything and keeps nothing.
class DiscardStream : public std::ostream {
  public:
    DiscardStream() : std::ostream(&buffer_) {}

  private:
    class Buffer : public std::streambuf {
      protected:
        int_type overflow(int_type c) override { return traits_type::not_eof(c); }
        std::streamsize xsputn(const char* /*data*/, std::streamsize size) override { return size; }
    };

    Buffer buffer_;
};

}  // namespace korva
