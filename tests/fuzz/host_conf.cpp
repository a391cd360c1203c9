// SPDX-License-Identifier: Apache-2.0
#include "fuzz/fuzz_target.h"
#include "support/utility_log_capture.h"
#include "utils/ovn_conf.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace {

using korva::fuzz::require;

bool isSpace(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool isNameCharacter(char c) {
    return c == '_' || std::isalnum(static_cast<unsigned char>(c)) != 0;
}

void requireEntry(const std::string& name, const std::string& value) {
    require(!name.empty() && std::all_of(name.begin(), name.end(), isNameCharacter), "a name is a word");
    require(!value.empty() && !isSpace(value.front()), "a value begins with something");
    require(value.find('#') == std::string::npos, "a comment is no part of a value");
}

korva::conf_data read(const std::string& text) {
    korva::conf_data conf;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    require(korva::conf_read_file_r(korva::fuzz::fileOf(bytes, text.size()).c_str(), &conf) == 0,
            "whatever it holds, the file is read");
    require(conf.finalized, "the store is sorted");
    return conf;
}

}  // namespace

/// The input is a host configuration.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const korva::test::UtilityLogCapture log;
    const korva::conf_data conf = read(korva::fuzz::textOf(data, size));
    std::string anew;
    for (const korva::conf_entry& entry : conf.entries) {
        requireEntry(entry.name, entry.value);
        require(korva::conf_get_r(entry.name, &conf) == entry.value, "each name leads to its value");
        anew += std::string(entry.name) + " " + entry.value + "\n";
    }
    const korva::conf_data again = read(anew);
    for (const korva::conf_entry& entry : conf.entries) {
        // White space at the end is cut or kept by how much there is of it.
        if (!isSpace(entry.value[std::strlen(entry.value) - 1])) {
            const char* value = korva::conf_get_r(entry.name, &again);
            require(value != nullptr && std::strcmp(value, entry.value) == 0,
                    "a value written anew is read as it was");
        }
    }
    return 0;
}
