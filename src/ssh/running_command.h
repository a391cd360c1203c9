// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/secret_mask.h"
#include "ssh/pump.h"
#include "ssh/ssh-transfer.h"

#include <array>
#include <iosfwd>
#include <string>

namespace korva {

namespace libssh2pp {
class Channel;
}

/// What Ssh::exec() is asked to do.
struct RemoteRequest {
    const std::string& command;
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    bool quietOutput;
    bool quietInput;
    Ssh::Counter& counter;
    unsigned window = 0;  ///< what the remote side may send ahead, in bytes; 0: as libssh2 does it
};

/// A remote command between its start and its exit status. Its steps are to be called in their order.
class RunningCommand {
  public:
    /// All arguments outlive the object.
    RunningCommand(libssh2pp::Channel& channel, const RemoteRequest& request, Ssh& ssh);
    RunningCommand(const RunningCommand&) = delete;
    RunningCommand& operator=(const RunningCommand&) = delete;
    ~RunningCommand();

    /// Sends the whole input. Output is read meanwhile only when the remote side takes no more.
    void sendInput();

    /// Reads both streams to their end.
    void drainOutput();

    /// Waits until the remote side has closed the channel.
    int waitForExitStatus();

  private:
    bool readStreams();
    void deliver(int stream, const char* data, int size);
    void deliverOutput(const char* data, int size);
    void deliverError(const std::string& text);
    void finishMasks();

    libssh2pp::Channel& channel_;
    const RemoteRequest& request_;
    Ssh& ssh_;
    std::array<char, kMaxPieceSize> buffer_;
    SecretMaskStream outputLogMask_;
    SecretMaskStream errorMask_;
};

}  // namespace korva
