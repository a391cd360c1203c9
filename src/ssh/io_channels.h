// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ssh/libssh2pp.h"

#include <istream>
#include <ostream>

namespace korva {

/// A source of bytes.
class IOReadChannel {
  public:
    virtual ~IOReadChannel() = default;
    /// The number of bytes put into `buffer`, 0 at the end, -1 on failure.
    virtual int read(char* buffer, unsigned size) = 0;
};

/// The bytes of a stream.
class IOStreamReadChannel : public IOReadChannel {
  public:
    explicit IOStreamReadChannel(std::istream& stream) : stream_(stream) {}
    /// Never fails: a stream that could not be opened is empty, and one that cannot be read on has ended. Ask
    /// the stream.
    int read(char* buffer, unsigned size) override;

  private:
    std::istream& stream_;
};

/// A sink for bytes.
class IOWriteChannel {
  public:
    virtual ~IOWriteChannel() = default;
    /// The number of bytes accepted, which may be fewer than `size`; negative on failure.
    virtual int write(const char* buffer, unsigned size) = 0;
};

/// Puts bytes into a stream.
class IOStreamWriteChannel : public IOWriteChannel {
  public:
    explicit IOStreamWriteChannel(std::ostream& stream) : stream_(stream) {}
    int write(const char* buffer, unsigned size) override;

  private:
    std::ostream& stream_;
};

/// The standard input of a remote command.
class SshChannelWriteChannel : public IOWriteChannel {
  public:
    explicit SshChannelWriteChannel(libssh2pp::Channel& channel) : channel_(channel) {}
    int write(const char* buffer, unsigned size) override;

  private:
    libssh2pp::Channel& channel_;
};

}  // namespace korva
