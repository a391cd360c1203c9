// SPDX-License-Identifier: Apache-2.0
#include "agent_check/command_run.h"

#include "agent_check/interruption.h"
#include "commons/arg_list.h"
#include "commons/bounded_text.h"
#include "commons/descriptor.h"
#include "commons/ending_signals.h"
#include "commons/system_error.h"
#include "tallowick/content_list.h"
#include "utils/fork_exec.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <optional>
#include <tuple>

namespace korva::agent_check {
namespace {

using Clock = std::chrono::steady_clock;

// For what ends by itself at this moment, and for what was asked to end.
constexpr std::chrono::milliseconds kPatienceWithLeft{1000};
constexpr std::chrono::seconds kPatienceWithEnded{2};
constexpr std::chrono::milliseconds kShortWait{10};

struct Pipe {
    Pipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) {
            throwSystemError("pipe", errno);
        }
        readEnd = Descriptor(ends[0]);
        writeEnd = Descriptor(ends[1]);
    }

    Descriptor readEnd{-1};
    Descriptor writeEnd{-1};
};

void stopWaitingFor(const Descriptor& end) {
    if (fcntl(end.fd(), F_SETFL, O_NONBLOCK) != 0) {
        throwSystemError("fcntl", errno);
    }
}

std::vector<pid_t> children() {
    std::ifstream list("/proc/thread-self/children");
    std::vector<pid_t> found;
    for (pid_t pid = 0; list >> pid;) {
        found.push_back(pid);
    }
    return found;
}

std::string nameOf(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    std::getline(file, name);
    return name;
}

void reapAll() {
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

void pause(std::chrono::milliseconds time) {
    std::ignore = poll(nullptr, 0, static_cast<int>(time.count()));
}

/// A command that runs.
class Run {
  public:
    Run(const std::string& line, std::string input, LongOutput longOutput)
        : input_(std::move(input)), isOutputCut_(longOutput == LongOutput::kIsCut) {
        Pipe in;
        Pipe out;
        Pipe err;
        stopWaitingFor(in.writeEnd);
        stopWaitingFor(out.readEnd);
        stopWaitingFor(err.readEnd);
        ArgList args;
        args << "setsid"
             << "sh"
             << "-c" << line;
        pid_ = forkExecvPipes(in.readEnd.fd(), out.writeEnd.fd(), err.writeEnd.fd(), "setsid", args, {}, {});
        in_ = std::move(in.writeEnd);
        out_ = std::move(out.readEnd);
        err_ = std::move(err.readEnd);
        pidfd_ = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
    ~Run() {
        if (pid_ > 0) {
            end();
        }
    }

    CommandResult wait(Clock::time_point deadline, Watcher* watcher) {
        while (out_.fd() >= 0 || err_.fd() >= 0 || !hasEnded()) {
            if (output_.exceeded() || Clock::now() >= deadline) {
                result_.exceeded = output_.exceeded();
                result_.timedOut = !result_.exceeded;
                result_.keptOpen = result_.timedOut && hasEnded();
                break;
            }
            exchange(deadline, watcher);
        }
        if (watcher != nullptr) {
            watcher->read();
        }
        if (!result_.timedOut && !result_.exceeded) {
            noteLeft();
        }
        end();
        result_.out = isOutputCut_ ? cutOutput_.str() : output_.str();
        result_.err = error_.str();
        return std::move(result_);
    }

  private:
    bool hasEnded() {
        if (!status_) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                constexpr int kSignalled = 128;
                status_ = WIFSIGNALED(status) ? kSignalled + WTERMSIG(status) : WEXITSTATUS(status);
            }
        }
        return status_.has_value();
    }

    void exchange(Clock::time_point deadline, Watcher* watcher) {
        using std::chrono::duration_cast;
        using std::chrono::nanoseconds;
        // Without a pidfd the end of the command itself is looked for now and then.
        const nanoseconds most = pidfd_.fd() >= 0 ? nanoseconds(deadline - Clock::now()) : kShortWait;
        const nanoseconds left =
            std::max(nanoseconds(0), std::min<nanoseconds>(most, deadline - Clock::now()));
        constexpr auto kSecond = nanoseconds(std::chrono::seconds(1)).count();
        const timespec time{left.count() / kSecond, left.count() % kSecond};
        if (input_.empty()) {
            in_ = Descriptor(-1);
        }
        std::array<pollfd, 5> ends{{{in_.fd(), POLLOUT, 0},
                                    {out_.fd(), POLLIN, 0},
                                    {err_.fd(), POLLIN, 0},
                                    {status_ ? -1 : pidfd_.fd(), POLLIN, 0},
                                    {watcher == nullptr ? -1 : watcher->fd(), POLLIN, 0}}};
        if (ppoll(ends.data(), ends.size(), &time, &EndingSignals::maskForWaits()) < 0 && errno != EINTR) {
            throwSystemError("ppoll", errno);
        }
        checkInterruption();
        if (ends[0].revents != 0) {
            write();
        }
        read(ends[1], out_, isOutputCut_ ? static_cast<std::ostream&>(cutOutput_) : output_);
        read(ends[2], err_, error_);
        if (ends[4].revents != 0) {
            watcher->read();
        }
    }

    // That a command does not read its input is no failure.
    void write() {
        try {
            writeFromString(in_.fd(), input_);
        } catch (const SystemError&) {
            input_.clear();
        }
    }

    static void read(const pollfd& end, Descriptor& from, std::ostream& to) {
        if (end.revents == 0) {
            return;
        }
        std::string text;
        if (!readToString(from.fd(), text)) {
            from = Descriptor(-1);
        }
        to << text;
    }

    void noteLeft() {
        const Clock::time_point end = Clock::now() + kPatienceWithLeft;
        std::vector<pid_t> left = children();
        while (!left.empty() && Clock::now() < end) {
            pause(kShortWait);
            reapAll();
            left = children();
        }
        std::transform(left.begin(), left.end(), std::back_inserter(result_.left), &nameOf);
    }

    // An agent that is asked to end may tidy up, which it is given a moment for.
    void end() {
        if (!hasEnded()) {
            kill(-pid_, SIGTERM);
            for (const auto last = Clock::now() + kPatienceWithEnded; !hasEnded() && Clock::now() < last;) {
                pause(kShortWait);
            }
        }
        if (!hasEnded()) {
            kill(-pid_, SIGKILL);
            kill(pid_, SIGKILL);
            while (!hasEnded()) {
                pause(kShortWait);
            }
        }
        const Clock::time_point last = Clock::now() + kPatienceWithEnded;
        for (std::vector<pid_t> left = children(); !left.empty() && Clock::now() < last; left = children()) {
            for (const pid_t pid : left) {
                kill(pid, SIGKILL);
            }
            reapAll();
            pause(kShortWait);
        }
        result_.status = *status_;
        pid_ = 0;
    }

    std::string input_;
    pid_t pid_ = 0;
    Descriptor in_{-1};
    Descriptor out_{-1};
    Descriptor err_{-1};
    Descriptor pidfd_{-1};
    bool isOutputCut_;
    LimitedText output_{kMaxListSize};
    BoundedText cutOutput_;
    BoundedText error_;
    std::optional<int> status_;
    CommandResult result_;
};

}  // namespace

CommandResult runCommand(const std::string& line, const std::string& input, std::chrono::seconds timeLimit,
                         LongOutput longOutput, Watcher* watcher) {
    checkInterruption();
    const Clock::time_point deadline = Clock::now() + timeLimit;
    if (watcher != nullptr) {
        watcher->begin();
    }
    return Run(line, input, longOutput).wait(deadline, watcher);
}

void adoptOrphans() {
    std::ignore = prctl(PR_SET_CHILD_SUBREAPER, 1);
}

}  // namespace korva::agent_check
