// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ios>
#include <sstream>
#include <string>

namespace korva::test {

/// Collects what goes to one of the standard streams while it lives.
class CapturedStream {
  public:
    explicit CapturedStream(std::ostream& stream) : stream_(stream), before_(stream.rdbuf(text_.rdbuf())) {}
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;
    ~CapturedStream() { stream_.rdbuf(before_); }

    std::string str() const { return text_.str(); }

  private:
    std::ostringstream text_;
    std::ostream& stream_;
    std::streambuf* before_;
};

/// Feeds one of the standard streams with a text while it lives.
class FedStream {
  public:
    FedStream(std::istream& stream, const std::string& text)
        : text_(text), stream_(stream), before_(stream.rdbuf(text_.rdbuf())) {
        stream_.clear();
    }
    FedStream(const FedStream&) = delete;
    FedStream& operator=(const FedStream&) = delete;
    ~FedStream() {
        stream_.rdbuf(before_);
        stream_.clear();
    }

  private:
    std::istringstream text_;
    std::istream& stream_;
    std::streambuf* before_;
};

}  // namespace korva::test
