// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_fsync.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace {

korva::test::FakeFsync* current = nullptr;
std::vector<std::string> names;

}  // namespace

// Stands in for the C library's: the linker takes the symbol of the program first.
extern "C" int fsync(int fd) {
    if (current == nullptr) {
        return static_cast<int>(::syscall(SYS_fsync, fd));
    }
    names.push_back(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)));
    current->onFlush(names.back());
    errno = current->error;
    return errno == 0 ? 0 : -1;
}

namespace korva::test {

FakeFsync::FakeFsync(int failure) : error(failure) {
    names.clear();
    current = this;
}

FakeFsync::~FakeFsync() {
    current = nullptr;
}

const std::vector<std::string>& FakeFsync::flushed() {
    return names;
}

}  // namespace korva::test
