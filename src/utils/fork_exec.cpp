// SPDX-License-Identifier: Apache-2.0
#include "utils/fork_exec.h"

#include "commons/system_error.h"
#include "utils/accounts.h"
#include "utils/env_password.h"
#include "utils/messlog.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <tuple>
#include <utility>

namespace korva {
namespace {

/// Owns a descriptor; -1 stands for none.
class Descriptor {
  public:
    Descriptor() = default;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const { return fd_; }
    bool isOpen() const { return fd_ != -1; }
    void reset(int fd = -1) {
        if (fd_ != -1) {
            ::close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

struct Pipe {
    Descriptor readEnd;
    Descriptor writeEnd;
};

void openPipe(Pipe& ends) {
    std::array<int, 2> fds{};
    if (::pipe(fds.data()) != 0) {
        messlog2(1, 1, "forkExecvGetOutErr: pipe() failed");
    }
    ends.readEnd.reset(fds[0]);
    ends.writeEnd.reset(fds[1]);
}

void setNonBlocking(const Descriptor& fd) {
    if (::fcntl(fd.get(), F_SETFL, O_NONBLOCK) == -1) {
        messlog2(1, 1, "forkExecvGetOutErr: fcntl(O_NONBLOCK) failed");
    }
}

/// Whoever started us may have left SIGCHLD ignored. The kernel then forgets how a child ended, and the wait
/// for it could not come to an end.
class KeptChildStatus {
  public:
    KeptChildStatus() {
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        ::sigaction(SIGCHLD, &action, &previous_);
    }
    KeptChildStatus(const KeptChildStatus&) = delete;
    KeptChildStatus& operator=(const KeptChildStatus&) = delete;
    ~KeptChildStatus() { ::sigaction(SIGCHLD, &previous_, nullptr); }

  private:
    struct sigaction previous_ {};
};

/// Waits for its child, at the latest when it goes out of scope.
class Child {
  public:
    explicit Child(pid_t pid = -1) : pid_(pid) {}
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() {
        if (pid_ != -1) {
            wait();
        }
    }

    void watch(pid_t pid) { pid_ = pid; }

    /// The exit status; -1 when a signal killed the child or its status cannot be had.
    int wait() {
        const pid_t pid = std::exchange(pid_, -1);
        int status = 0;
        while (::waitpid(pid, &status, 0) == -1) {
            if (errno != EINTR && errno != ECHILD) {
                return -1;
            }
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_;
};

/// Feeds a text through writeFromString() in pieces, so that taking off what has been written stays cheap.
class Feed {
  public:
    explicit Feed(std::string text) : text_(std::move(text)) {}

    void writeTo(int fd) {
        if (piece_.empty()) {
            piece_ = text_.substr(taken_, kPieceSize);
            taken_ += piece_.size();
        }
        writeFromString(fd, piece_);
    }

    bool isEmpty() const { return piece_.empty() && taken_ == text_.size(); }

  private:
    static constexpr std::size_t kPieceSize = 256UL * 1024;
    std::string text_;
    std::string piece_;
    std::size_t taken_ = 0;
};

/// Moves data between us and the child until all three pipes are closed. Waits with poll(2), since a
/// descriptor may be too large for the sets of select(2).
void exchangeData(Feed& input, Descriptor& in, std::string& output, Descriptor& out, std::string& error,
                  Descriptor& err) {
    while (in.isOpen() || out.isOpen() || err.isOpen()) {
        std::array<pollfd, 3> ends{{{in.get(), POLLOUT, 0}, {out.get(), POLLIN, 0}, {err.get(), POLLIN, 0}}};
        if (::poll(ends.data(), ends.size(), -1) == -1) {
            if (errno == EINTR) {
                continue;
            }
            throwSystemError("forkExecvGetOutErr: select() failed", errno);
        }
        if (ends[0].revents != 0) {
            input.writeTo(in.get());
            if (input.isEmpty()) {
                in.reset();
            }
        }
        if (ends[1].revents != 0 && !readToString(out.get(), output)) {
            out.reset();
        }
        if (ends[2].revents != 0 && !readToString(err.get(), error)) {
            err.reset();
        }
    }
}

void closeOtherDescriptors() {
    constexpr int kFirst = STDERR_FILENO + 1;
    // One call however large the limit is. Kernels before 5.9 do not have it, some system call filters refuse
    // it.
    if (::close_range(kFirst, ~0U, 0) == 0) {
        return;
    }
    for (int fd = ::getdtablesize() - 1; fd >= kFirst; --fd) {
        ::close(fd);
    }
}

void switchUser(const std::string& user) {
    if (!user.empty() && korva_ugid(user, nullptr) != 0 && p_setuid(user) != 0) {
        const int error = errno;
        throwSystemError("forkExecvPipes: p_setuid() to '" + user + "' failed", error);
    }
}

void setEnvironment(const std::map<std::string, std::string>& env) {
    dropPasswordsFromEnvironment();
    for (const auto& [name, value] : env) {
        if (::setenv(name.c_str(), value.c_str(), 1) != 0) {
            throwSystemError("forkExecvPipes: setenv() falied", errno);
        }
    }
}

/// An ignored signal and the mask would last beyond exec.
void resetSignals() {
    std::ignore = std::signal(SIGPIPE, SIG_DFL);
    std::ignore = std::signal(SIGXFSZ, SIG_DFL);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// The child's side of forkExecvPipes(). Nothing may leave it but exec and the end of the process: the
/// functions that wait further up the stack belong to the parent.
[[noreturn]] void becomeProgram(int inFd, int outFd, int errFd, const std::string& path, const ArgList& args,
                                const std::string& user, const std::map<std::string, std::string>& env) {
    messlogInForkedChild();
    try {
        dup2Custom(inFd, STDIN_FILENO);
        dup2Custom(outFd, STDOUT_FILENO);
        dup2Custom(errFd, STDERR_FILENO);
        closeOtherDescriptors();
        switchUser(user);
        setEnvironment(env);
        resetSignals();
        ::execvp(path.c_str(), args.argv());
        messlog2(1, 1, "forkExecvPipes: execv() failed: %s\n", std::strerror(errno));
    } catch (const std::exception& failure) {
        errno = 0;  // its text is in the message
        messlog2(1, 1, "%s", failure.what());
    }
    ::_exit(1);
}

}  // namespace

int dup2Custom(int fd, int target) {
    if (fd == target) {
        return fd;
    }
    if (fd == -1) {
        fd = ::open("/dev/null", O_RDWR);
        if (fd == -1) {
            throwSystemError("dup2Custom failed", errno);
        }
        if (fd == target) {
            return fd;
        }
    }
    const int result = ::dup2(fd, target);
    ::close(fd);
    return result;
}

bool readToString(int fd, std::string& text) {
    std::array<char, 4096> buffer;
    while (true) {
        const ssize_t size = ::read(fd, buffer.data(), buffer.size());
        if (size == 0) {
            return false;
        }
        if (size > 0) {
            text.append(buffer.data(), static_cast<std::size_t>(size));
        } else if (errno == EAGAIN) {
            return true;
        } else if (errno != EINTR) {
            throwSystemError("readToString failed", errno);
        }
    }
}

void writeFromString(int fd, std::string& text) {
    while (!text.empty()) {
        const ssize_t size = ::write(fd, text.data(), text.size());
        if (size >= 0) {
            text.erase(0, static_cast<std::size_t>(size));
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR) {
            throwSystemError("writeToString failed", errno);
        }
    }
}

pid_t forkExecvPipes(int inFd, int outFd, int errFd, const std::string& path, const ArgList& args,
                     const std::string& user, const std::map<std::string, std::string>& env) {
    const pid_t pid = ::fork();
    if (pid == -1) {
        throwSystemError("forkExecvPipes: fork() failed", errno);
    }
    if (pid == 0) {
        becomeProgram(inFd, outFd, errFd, path, args, user, env);
    }
    return pid;
}

int forkExecvGetInOutErrSuidEnv(std::string input, std::string& output, std::string& error,
                                const std::string& path, const ArgList& args, const std::string& user,
                                const std::map<std::string, std::string>& env) {
    const KeptChildStatus keptChildStatus;
    Child child;  // outlives the pipes: whoever waits for the child must have closed them
    Pipe inputPipe;
    Pipe outputPipe;
    Pipe errorPipe;
    for (Pipe* ends : {&inputPipe, &outputPipe, &errorPipe}) {
        openPipe(*ends);
    }
    setNonBlocking(inputPipe.writeEnd);
    setNonBlocking(outputPipe.readEnd);
    setNonBlocking(errorPipe.readEnd);
    child.watch(forkExecvPipes(inputPipe.readEnd.get(), outputPipe.writeEnd.get(), errorPipe.writeEnd.get(),
                               path, args, user, env));
    inputPipe.readEnd.reset();
    outputPipe.writeEnd.reset();
    errorPipe.writeEnd.reset();
    Feed feed(std::move(input));
    exchangeData(feed, inputPipe.writeEnd, output, outputPipe.readEnd, error, errorPipe.readEnd);
    return child.wait();
}

int forkExecvGetOutErrSuidEnv(std::string& output, std::string& error, const std::string& path,
                              const ArgList& args, const std::string& user,
                              const std::map<std::string, std::string>& env) {
    return forkExecvGetInOutErrSuidEnv({}, output, error, path, args, user, env);
}

int forkExecvGetOutErrSuid(std::string& output, std::string& error, const std::string& path,
                           const ArgList& args, const std::string& user) {
    static const std::map<std::string, std::string> kNoVariables;
    return forkExecvGetOutErrSuidEnv(output, error, path, args, user, kNoVariables);
}

int forkExecvGetOutErr(std::string& output, std::string& error, const std::string& path,
                       const ArgList& args) {
    return forkExecvGetOutErrSuid(output, error, path, args, {});
}

int forkExecvGetOut(std::string& output, const std::string& path, const ArgList& args) {
    std::string dropped;
    return forkExecvGetOutErr(output, dropped, path, args);
}

}  // namespace korva
