// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/checksum.h"
#include "commons/descriptor.h"
#include "commons/output_file.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace korva {

/// A file on its way into a directory: received under a new name of its own beside the final one, created
/// exclusively, and put in its place only when it is whole. Removed unless it was put there.
class IncomingFile {
  public:
    /// Whether md5() will be asked: a sum takes as long as all the rest of a byte's way.
    enum class Sum { kNone, kMd5 };

    /// `directory` is held open by the caller as long as the file is. Throws SystemError when what has the
    /// final name is no regular file, which is left alone. The new file has mode 0644, whatever the process
    /// umask. When it cannot be created, the stream fails from the start.
    IncomingFile(const Descriptor& directory, std::string finalName, Sum sum = Sum::kNone);
    IncomingFile(const IncomingFile&) = delete;
    IncomingFile& operator=(const IncomingFile&) = delete;
    ~IncomingFile();

    std::ostream& stream() { return stream_; }

    /// Throws StreamWrite when not every byte has arrived in the file.
    void close();

    /// Why not, in the system's words.
    std::string failure() const;

    /// Replaces what has the final name. After close(). Throws SystemError.
    void install();
    /// The same; when it returns, the file is on the disk under its final name.
    void installFlushed();

    /// Bytes received.
    std::int64_t size() const { return buffer_->size(); }
    /// The MD5 sum of what was received, when there was to be one. After close(), and once.
    std::string md5() { return buffer_->md5(); }

    /// Whether a name is of the kind that new files get until they are installed.
    static bool isTemporaryName(std::string_view name);
    /// Removes the new files of runs that were killed. Those of runs that go on are left alone.
    static void removeAbandoned(const Descriptor& directory);

  private:
    /// Counts what it writes, and sums it up when that is wanted.
    class Buffer : public DescriptorBuffer {
      public:
        Buffer(int fd, std::string name, Sum sum);
        std::int64_t size() const { return size_; }
        std::string md5() { return md5_.value().hexDigest(); }

      protected:
        std::streamsize xsputn(const char* data, std::streamsize size) override;

      private:
        std::int64_t size_ = 0;
        std::optional<Md5> md5_;
    };

    const Descriptor& directory_;
    std::string finalName_;
    std::string temporaryName_;
    std::unique_ptr<Buffer> buffer_;
    Descriptor lock_;  // keeps the file from being taken for an abandoned one
    std::ostream stream_;
};

}  // namespace korva
