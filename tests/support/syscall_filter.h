// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <vector>

namespace korva::test {

inline void installSyscallFilter(std::vector<sock_filter> instructions) {
    const sock_fprog program{static_cast<unsigned short>(instructions.size()), instructions.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        throw std::runtime_error("cannot install a system call filter");
    }
}

constexpr std::uint32_t kSyscallNumberOffset = offsetof(seccomp_data, nr);
constexpr std::uint32_t kLowHalfOfFirstArgumentOffset = offsetof(seccomp_data, args);  // little-endian

/// From here on this process and its children are killed when they close a descriptor from `first` up by
/// itself. Cannot be undone.
inline void killOnCloseFrom(std::uint32_t first) {
    installSyscallFilter({
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kSyscallNumberOffset),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_close, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kLowHalfOfFirstArgumentOffset),
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, first, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    });
}

/// From here on a system call fails with `error` in this process and its children. Cannot be undone.
inline void failSyscall(std::uint32_t number, std::uint32_t error) {
    installSyscallFilter({
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kSyscallNumberOffset),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    });
}

/// From here on opening directories as such (O_DIRECTORY) fails with `error`. Cannot be undone.
inline void failDirectoryOpens(std::uint32_t error) {
    constexpr std::uint32_t kFlagsOffset = offsetof(seccomp_data, args) + 2 * sizeof(std::uint64_t);
    installSyscallFilter({
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kSyscallNumberOffset),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kFlagsOffset),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_DIRECTORY, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    });
}

}  // namespace korva::test
