// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace korva {

KORVA_ERROR_TAG(CantStatFS, "Cannot stat filesystem containing %1%: %2%")
KORVA_ERROR_TAG(CantCreateTempFile, "Can not create temporary file with the template '%1%': %2%.")

/// Creates a directory and its missing parents, each with this owner, group and mode (less the umask). What
/// exists stays as it is. Failures are not reported: ask whether the directory is there. `path` is changed
/// while this runs and is as before afterwards.
void make_dir(char* path, uid_t owner, gid_t group, mode_t mode);
void make_dir(const std::string& path, uid_t owner, gid_t group, mode_t mode);

/// Whether `name` (may be null) names an existing regular file, also through symbolic links.
bool check_input_file(const char* name, bool = false);

/// Creates an empty file of mode 0600, its name `dir`/`name` and six more characters, and returns that name.
/// An empty `dir` stands for DUMP_TMP_D of the host configuration or else the product's own temporary
/// directory. Throws CantCreateTempFile.
std::string DVX_getTempFileName(const std::string& dir, const std::string& name);

/// Bytes that unprivileged users may still write to the file system that holds `path`. Throws CantStatFS.
std::uint64_t getFreeSpace(const std::string& path);

/// Returns when the content of a finished file is on the disk. Throws SystemError.
void syncFile(const std::string& path);

/// Returns when what is open as `fd` is on the disk; `name` is for messages. Throws SystemError.
void syncDescriptor(int fd, const std::string& name);

/// Returns when the entry of `path` in its directory is on the disk. Throws SystemError.
void syncDirectoryOf(const std::string& path);

/// Both: for a file that is written under the name that it keeps.
void syncFileAndDirectory(const std::string& path);

}  // namespace korva
