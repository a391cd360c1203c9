// SPDX-License-Identifier: Apache-2.0
#include "tallowick/name_record.h"

#include "commons/filesystem.h"
#include "commons/output_file.h"
#include "commons/stream_errors.h"
#include "commons/system_error.h"

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

}  // namespace

void writeNameRecord(const std::string& path, const std::string& name) {
    OutputFile record(path);
    record << name;
    try {
        record.close();
        syncFileAndDirectory(path);
    } catch (const Exc<&StreamWrite>&) {  // it does not say why
        throw KORVA_EXC(FileWrite) % path % record.failure();
    } catch (const SystemError& e) {
        throw KORVA_EXC(FileWrite) % path % e.what();
    }
}

}  // namespace korva
