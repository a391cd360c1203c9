// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/sink_buffer.h"

#include <cstddef>
#include <ostream>
#include <string>

namespace korva {

/// Takes what a program on the other side says, however much: of a text above 128 KiB the first and the last
/// 64 KiB are kept.
class BoundedText : public std::ostream {
  public:
    static constexpr std::size_t kEndSize = 65536;

    BoundedText() : std::ostream(&buffer_) {}

    /// The text, with a note in the place of what was left out.
    std::string str() const { return buffer_.str(); }

  private:
    class Buffer : public SinkBuffer {
      public:
        std::string str() const;

      protected:
        std::streamsize xsputn(const char* data, std::streamsize size) override;

      private:
        std::string head_;
        std::string tail_;  // up to twice what is kept of it
        std::size_t leftOut_ = 0;
    };

    Buffer buffer_;
};

/// Takes a text up to a limit: the stream fails at the first piece that goes beyond.
class LimitedText : public std::ostream {
  public:
    /// `limit` in bytes.
    explicit LimitedText(std::size_t limit) : std::ostream(&buffer_), buffer_(limit) {}

    const std::string& str() const { return buffer_.text; }
    bool exceeded() const { return buffer_.exceeded; }

  private:
    struct Buffer : public SinkBuffer {
        explicit Buffer(std::size_t limit) : limit_(limit) {}

        std::string text;
        bool exceeded = false;

      protected:
        std::streamsize xsputn(const char* data, std::streamsize size) override;

      private:
        std::size_t limit_;
    };

    Buffer buffer_;
};

}  // namespace korva
