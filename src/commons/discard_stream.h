// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/sink_buffer.h"

#include <ostream>

namespace korva {

/// A stream that takes everything and keeps nothing.
class DiscardStream : public std::ostream {
  public:
    DiscardStream() : std::ostream(&buffer_) {}

  private:
    class Buffer : public SinkBuffer {
      protected:
        std::streamsize xsputn(const char* /*data*/, std::streamsize size) override { return size; }
    };

    Buffer buffer_;
};

}  // namespace korva
