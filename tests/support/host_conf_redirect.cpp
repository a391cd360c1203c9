// SPDX-License-Identifier: Apache-2.0
#include "support/host_conf_redirect.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

std::string& redirection() {
    static std::string path;
    return path;
}

}  // namespace

// The linker gives calls of fopen to __wrap_fopen, and calls of __real_fopen to fopen (ld's --wrap).
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
std::FILE* __real_fopen(const char* path, const char* mode);

std::FILE* __wrap_fopen(const char* path, const char* mode) {
    if (std::strcmp(path, "/etc/ovn/ovn.conf") != 0) {
        return __real_fopen(path, mode);
    }
    if (redirection().empty()) {
        errno = ENOENT;
        return nullptr;
    }
    return __real_fopen(redirection().c_str(), mode);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

namespace korva::test {

void redirectHostConf(const std::string& path) {
    redirection() = path;
}

}  // namespace korva::test
