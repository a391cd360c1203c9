// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/descriptor.h"

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

namespace korva {

/// Opens a directory. Throws SystemError.
Descriptor openDirectory(const std::string& path);

/// Opens a regular file of the directory `directory` (AT_FDCWD for the working directory) with the flags of
/// open(2). A symbolic link as the last component is not followed, the other end of a FIFO not waited for,
/// and nothing but a regular file stays open. Returns the descriptor, or -1 with errno set.
int openRegularFile(int directory, const std::string& name, int flags);

/// What a whole file holds.
struct FileSum {
    std::string md5;  ///< 32 lower-case hex digits
    std::int64_t size;
};

/// Sums a regular file, opened as openRegularFile() does; nothing when it cannot be opened or read.
std::optional<FileSum> sumRegularFile(int directory, const std::string& name);

/// Copies the bytes of a regular file. Throws SystemError; a failure of `to` ends it, which its state tells.
void copyRegularFile(const std::string& path, std::ostream& to);

}  // namespace korva
