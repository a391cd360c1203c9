// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_fsync.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace {

bool active = false;
int failure = 0;
std::vector<std::string> names;

}  // namespace

// Stands in for the C library's: the linker takes the symbol of the program first.
extern "C" int fsync(int fd) {
    if (!active) {
        return static_cast<int>(::syscall(SYS_fsync, fd));
    }
    names.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    errno = failure;
    return failure == 0 ? 0 : -1;
}

namespace korva::test {

FakeFsync::FakeFsync(int error) {
    names.clear();
    failure = error;
    active = true;
}

FakeFsync::~FakeFsync() {
    active = false;
}

const std::vector<std::string>& FakeFsync::flushed() {
    return names;
}

}  // namespace korva::test
