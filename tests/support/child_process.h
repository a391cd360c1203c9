// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>

namespace korva::test {

/// Runs `body` in a forked copy of this process, for what cannot be undone (values that are kept for the life
/// of a process, limits, filters, closed descriptors). Returns its exit status: 1 when an expectation in it
/// failed or it threw, 0 otherwise unless it ended the process itself; minus the signal's number when one
/// killed it.
inline int statusOfChild(const std::function<void()>& body) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        // exit() runs the handlers of `body`, but not those of the test program.
        ::on_exit(
            [](int status, void* /*unused*/) {
                std::fflush(nullptr);
                ::_exit(status);
            },
            nullptr);
        bool failed = true;
        try {
            body();
            failed = testing::Test::HasFailure();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "exception in the child process: %s\n", error.what());
        }
        std::exit(failed ? 1 : 0);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

/// Lets a descriptor of this process write to a new file; for use in a child.
inline void redirectToFile(int fd, const std::string& path) {
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ::dup2(file, fd);
    ::close(file);
}

}  // namespace korva::test
