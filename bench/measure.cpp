// SPDX-License-Identifier: Apache-2.0
// measure RESULT COMMAND [ARG...]
//
// Runs COMMAND and writes into the file RESULT what it took, as one line: nanoseconds from its start to its
// end, microseconds of processor time, KiB of peak resident memory, its exit status (128 + n when signal n
// ended it). Time and memory are those of the command with all the processes that it has waited for. Small on
// purpose: the peak of a process begins with that of the process which it was forked from.
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstring>

extern char** environ;

namespace {

long long microseconds(const timeval& time) {
    return static_cast<long long>(time.tv_sec) * 1000000 + time.tv_usec;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs("usage: measure RESULT COMMAND [ARG...]\n", stderr);
        return 2;
    }
    const auto began = std::chrono::steady_clock::now();
    pid_t child = 0;
    if (const int error = posix_spawnp(&child, argv[2], nullptr, nullptr, argv + 2, environ); error != 0) {
        std::fprintf(stderr, "measure: %s: %s\n", argv[2], std::strerror(error));
        return 2;
    }
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child) {
        std::perror("measure: wait4");
        return 2;
    }
    const auto wall = std::chrono::steady_clock::now() - began;
    FILE* const result = std::fopen(argv[1], "w");
    if (result == nullptr) {
        std::perror(argv[1]);
        return 2;
    }
    std::fprintf(result, "%lld %lld %ld %d\n", static_cast<long long>(std::chrono::nanoseconds(wall).count()),
                 microseconds(usage.ru_utime) + microseconds(usage.ru_stime), usage.ru_maxrss,
                 WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
    return std::fclose(result) == 0 ? 0 : 2;
}
