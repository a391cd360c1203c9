// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/descriptor.h"
#include "commons/sink_buffer.h"

#include <ostream>
#include <string>

namespace korva {

/// Writes straight to a descriptor, which it owns. The reason of the first failure is kept, and told in the
/// log.
class DescriptorBuffer : public SinkBuffer {
  public:
    /// Takes the result of open(2), with errno as it left it; `name` is for the log.
    DescriptorBuffer(int fd, std::string name);
    int fd() const { return fd_.fd(); }
    /// False when the descriptor was never open, or bytes could not be written.
    bool close();
    /// The errno value of the first failure; 0 for none.
    int error() const { return error_; }

  protected:
    std::streamsize xsputn(const char* data, std::streamsize size) override;

  private:
    void fail();

    Descriptor fd_;
    std::string name_;
    int error_ = 0;
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

    /// Why it could not, in the system's words.
    std::string failure() const;

  private:
    DescriptorBuffer buffer_;
};

}  // namespace korva
