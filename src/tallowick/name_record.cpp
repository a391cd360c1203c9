// SPDX-License-Identifier: Apache-2.0
#include "tallowick/name_record.h"

#include "commons/incoming_file.h"
#include "commons/regular_file.h"
#include "commons/stream_errors.h"
#include "commons/system_error.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

// Replacing asks for the directory's permission alone.
void requireWritableOrMissing(const std::string& path) {
    const Descriptor before(openRegularFile(AT_FDCWD, path, O_WRONLY));
    const int error = errno;
    if (before.fd() < 0 && error != ENOENT) {
        throw KORVA_EXC(FileWrite) % path % std::strerror(error);
    }
}

}  // namespace

void writeNameRecord(const std::string& path, const std::string& name) try {
    requireWritableOrMissing(path);
    const std::filesystem::path file(path);
    const Descriptor directory = openDirectory(file.parent_path());
    IncomingFile::removeAbandoned(directory);
    IncomingFile record(directory, file.filename());
    record.stream() << name;
    try {
        record.close();
    } catch (const Exc<&StreamWrite>&) {  // it does not say why
        throw KORVA_EXC(FileWrite) % path % record.failure();
    }
    record.installFlushed();
} catch (const SystemError& e) {
    throw KORVA_EXC(FileWrite) % path % e.what();
}

}  // namespace korva
