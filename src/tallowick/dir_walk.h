// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace korva {

/// Visits one entry of a tree; whether a directory is to be descended into.
using DirWalkVisitor =
    std::function<bool(const std::filesystem::path& localPath, const std::string& remotePath)>;

/// Gives `localTop` and each entry below it to `visitor`, with the same relative path below `remoteTop`, in
/// the order in which the file system lists them. Does nothing when `localTop` is no directory. A link to a
/// file counts as that file. FIFOs, sockets, devices and a directory that leads back to one on its own path
/// are skipped with a log line. Throws std::filesystem::filesystem_error.
void recursive_dir_walk_sync(const std::filesystem::path& localTop, const std::string& remoteTop,
                             const DirWalkVisitor& visitor);

}  // namespace korva
