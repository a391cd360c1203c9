// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/descriptor.h"

#include <ostream>
#include <streambuf>
#include <string>

namespace korva {

/// Writes straight to a descriptor, which it owns. After a failure nothing more is written.
class DescriptorBuffer : public std::streambuf {
  public:
    explicit DescriptorBuffer(int fd) : fd_(fd) {}
    int fd() const { return fd_.fd(); }
    /// False when the descriptor was never open, or its last bytes could not be written.
    bool close() { return fd_.close(); }

  protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* data, std::streamsize size) override;

  private:
    Descriptor fd_;
};

/// A local file that is written from its beginning. A symbolic link in its place is not followed, and what is
/// no regular file is not opened: the stream then fails like one that could not be opened.
class OutputFile : public std::ostream {
  public:
    /// Creates or truncates.
    explicit OutputFile(const std::string& path);

    /// False for good when the file could not be opened.
    bool isOpen() const { return buffer_.fd() >= 0; }

    /// Makes a local account and its group the owner of the file, if that is possible. Before close().
    void giveTo(const std::string& user);

    /// Throws StreamWrite when the file could not be opened or written whole.
    void close();

  private:
    DescriptorBuffer buffer_;
};

}  // namespace korva
