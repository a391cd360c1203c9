// SPDX-License-Identifier: Apache-2.0
#include "tallowick/name_record.h"

#include "commons/filesystem.h"
#include "commons/output_file.h"

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

}  // namespace

void writeNameRecord(const std::string& path, const std::string& name) {
    try {
        OutputFile record(path);
        record.exceptions(std::ios::badbit | std::ios::failbit);
        record << name;
        record.close();
        syncFileAndDirectory(path);
    } catch (const std::exception& e) {
        throw KORVA_EXC(FileWrite) % path % e.what();
    }
}

}  // namespace korva
