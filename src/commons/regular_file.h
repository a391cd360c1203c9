// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

namespace korva {

/// Opens a regular file of the directory `directory` (AT_FDCWD for the working directory) with the flags of
/// open(2). A symbolic link as the last component is not followed, a FIFO or device is neither opened nor
/// waited for. Returns the descriptor, or -1 with errno set.
int openRegularFile(int directory, const std::string& name, int flags);

/// What a whole file holds.
struct FileSum {
    std::string md5;  ///< 32 lower-case hex digits
    std::int64_t size;
};

/// Sums a regular file, opened as openRegularFile() does; nothing when it cannot be opened or read.
std::optional<FileSum> sumRegularFile(int directory, const std::string& name);

/// Copies the bytes of a regular file. Throws SystemError; the state of `to` tells of failures there.
void copyRegularFile(const std::string& path, std::ostream& to);

}  // namespace korva
