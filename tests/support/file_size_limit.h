// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace korva::test {

/// Limits the size of files that this process writes, as a full disk would; the signal that comes with it is
/// ignored.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) : handlerBefore_(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, handlerBefore_);
    }

  private:
    rlimit before_{};
    void (*handlerBefore_)(int);
};

}  // namespace korva::test
