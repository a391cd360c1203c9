// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace korva::agent_check {

/// What became of a command.
struct CommandResult {
    int status = 0;         ///< 128 plus the signal's number where one has ended it
    bool timedOut = false;  ///< it was ended
    bool keptOpen = false;  ///< with timedOut: it was over, but something that it left behind had its output
    bool exceeded = false;  ///< it wrote more than a list may have, and was ended
    std::string out;
    std::string err;
    std::vector<std::string> left;  ///< names of the processes that it left behind, which were ended

    bool isGood() const { return status == 0 && !timedOut && !exceeded; }
};

/// Something that wants to be told of events while a command runs.
class Watcher {
  public:
    virtual ~Watcher() = default;
    /// A command is about to run, which need not be the first one.
    virtual void begin() = 0;
    /// Is readable when there is an event.
    virtual int fd() const = 0;
    virtual void read() = 0;
};

/// What becomes of a long standard output.
enum class LongOutput {
    kEnds,   ///< the command is ended when it has written more than a list may have
    kIsCut,  ///< the beginning and the end are kept
};

/// Runs a command line as an SSH server does: by a shell, in a session of its own without a terminal, its
/// standard input the given text, and waits for the end of its output. It and what it has started are ended
/// after the time limit, and what it has left behind at its end. `watcher` may be null. Throws Interruption
/// and SystemError.
CommandResult runCommand(const std::string& line, const std::string& input, std::chrono::seconds timeLimit,
                         LongOutput longOutput, Watcher* watcher);

/// Lets descendants of commands become children of this process, so that none gets lost.
void adoptOrphans();

}  // namespace korva::agent_check
