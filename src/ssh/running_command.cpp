// SPDX-License-Identifier: Apache-2.0
#include "ssh/running_command.h"

#include "commons/log_line.h"
#include "commons/signal_hold.h"
#include "ssh/libssh2pp.h"
#include "ssh/pump.h"
#include "ssh/remote_log.h"
#include "ssh/socket_wait.h"

#include <log4cpp/Category.hh>

#include <algorithm>
#include <ostream>
#include <string_view>

namespace korva {
namespace {

constexpr const char* kSourceName = "./ssh-transfer";

constexpr int kStandardOutput = 0;
constexpr int kStandardError = 1;

log4cpp::Category& category() {
    return log4cpp::Category::getInstance("k.Ssh");
}

// Hiding secrets may make a chunk longer than those that are read.
void logChunk(const char* label, std::string_view text) {
    forEachPiece(text, [label](std::string_view piece) {
        debugLine(category()) << label << memchunk_log{piece.data(), static_cast<int>(piece.size())};
    });
}

}  // namespace

RunningCommand::RunningCommand(libssh2pp::Channel& channel, const RemoteRequest& request, Ssh& ssh)
    : channel_(channel),
      request_(request),
      ssh_(ssh),
      outputLogMask_(ssh.secrets()),
      errorMask_(ssh.secrets()) {
    // A command may wait for its output to be read before it reads on.
    channel_.setWhenFull([this] { readStreams(); });
    channel_.keepWindowOpen(request.window);
}

RunningCommand::~RunningCommand() {
    channel_.setWhenFull([] {});
}

void RunningCommand::sendInput() {
    IOStreamReadChannel source(request_.in);
    SshChannelWriteChannel sink(channel_);
    if (request_.quietInput) {
        pump(source, sink);
    } else {
        pump_with_log(source, sink, ssh_);
    }
    if (request_.in.bad()) {  // what cannot be read on is not its end
        throw KORVA_EXC(StreamRead);
    }
}

void RunningCommand::drainOutput() {
    while (!channel_.eof()) {
        SignalHold::admit();  // a command that never pauses leaves no wait for it
        ssh_.serveAlarm();
        if (!readStreams()) {
            channel_.poll(kWakeUpMs);
        }
    }
    finishMasks();
}

// A server may send the end of the output long before the command ends.
int RunningCommand::waitForExitStatus() {
    while (!channel_.closed()) {
        ssh_.serveAlarm();
        if (channel_.closed()) {  // the alarm's own commands may have taken the close from the socket
            break;
        }
        channel_.waitForClose(kWakeUpMs);
    }
    return channel_.exitStatus();
}

bool RunningCommand::readStreams() {
    bool gotData = false;
    for (const int stream : {kStandardOutput, kStandardError}) {
        const int size = channel_.read(stream, buffer_.data(), buffer_.size());
        if (size > 0) {
            deliver(stream, buffer_.data(), size);
            gotData = true;
        }
    }
    return gotData;
}

void RunningCommand::deliver(int stream, const char* data, int size) {
    if (stream == kStandardOutput) {
        deliverOutput(data, size);
    } else {
        deliverError(errorMask_.push(std::string_view(data, static_cast<std::size_t>(size))));
    }
}

void RunningCommand::deliverOutput(const char* data, int size) {
    if (!request_.quietOutput && category().isDebugEnabled()) {
        logChunk("remote stdout -> ",
                 outputLogMask_.push(std::string_view(data, static_cast<std::size_t>(size))));
    }
    request_.counter(size);
    IOStreamWriteChannel sink(request_.out);
    pump_write(sink, data, size);
}

void RunningCommand::deliverError(const std::string& text) {
    if (!request_.quietOutput) {
        logChunk("remote stderr -> ", text);
    }
    IOStreamWriteChannel sink(request_.err);
    forEachPiece(text, [&sink](std::string_view piece) {
        pump_write(sink, piece.data(), static_cast<int>(piece.size()));
    });
}

void RunningCommand::finishMasks() {
    logChunk("remote stdout -> ", outputLogMask_.finish());
    deliverError(errorMask_.finish());
}

}  // namespace korva
