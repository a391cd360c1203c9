// SPDX-License-Identifier: Apache-2.0
#include "ssh/ssh-transfer.h"

#include "commons/discard_stream.h"
#include "commons/log_line.h"
#include "commons/output_file.h"
#include "commons/sh_quote.h"
#include "commons/signal_hold.h"
#include "commons/socket.h"
#include "commons/stream_errors.h"
#include "commons/umask_scope.h"
#include "ssh/libssh2pp.h"
#include "ssh/pump.h"
#include "ssh/remote_log.h"
#include "ssh/running_command.h"

#include <log4cpp/Category.hh>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <tuple>

namespace korva {
namespace {

constexpr const char* kSourceName = "./ssh-transfer";

constexpr int kStatusOfRefusedCommand = 255;

// A download can be no faster than this by the round trip.
constexpr unsigned kDownloadWindow = 4 << 20;

constexpr const char* kHiddenText = "********";

log4cpp::Category& category() {
    return log4cpp::Category::getInstance("k.Ssh");
}

}  // namespace

Ssh::NullCounter Ssh::null_counter;

Ssh::Ssh(const std::string& host, const std::string& login, const std::string& password, bool noEncryption,
         unsigned short port) {
    const SignalHold hold;
    secrets_.add(password);
    try {
        startSession(host, noEncryption, port);
        session_->authorize(login, password);
    } catch (const Exc<&SshAuthorizationFailed>&) {  // the error below says all that it does
        session_.reset();
        throw KORVA_EXC(SshInvalidCredentials) % host;
    } catch (...) {
        session_.reset();  // here, where no signal disturbs the library
        throw;
    }
}

Ssh::~Ssh() {
    const SignalHold hold;
    session_.reset();
    socket_.reset();
}

void Ssh::startSession(const std::string& host, bool noEncryption, unsigned short port) {
    socket_ = std::make_unique<Socket>(host, port);
    try {
        session_ = std::make_unique<libssh2pp::Session>(socket_->fd(), noEncryption, false);
    } catch (const Exc<&UnableToStartSshSession>&) {  // logged where it was thrown
        debugLine(category()) << "Attempt to start SSH session in a 'compatibility' mode";
        auto socket = std::make_unique<Socket>(host, port);
        session_ = std::make_unique<libssh2pp::Session>(socket->fd(), noEncryption, true);
        socket_ = std::move(socket);
    }
}

int Ssh::exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
              bool quietOutput, bool quietInput, Counter& counter) {
    return run({command, in, out, err, quietOutput, quietInput, counter});
}

int Ssh::exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
              Counter& counter) {
    std::istringstream noInput;
    return exec(command, noInput, out, err, quietOutput, false, counter);
}

int Ssh::run(const RemoteRequest& request) {
    const SignalHold hold;
    debugLine(category()) << "Executing " << shown(request.command) << " on the remote host";
    const auto channel =
        session_->openExecChannel(request.command, shown(request.command), libssh2pp::Channel::kNonBlocking);
    const int status = channel ? runOn(*channel, request) : kStatusOfRefusedCommand;
    debugLine(category()) << "Execution finished with return code " << status;
    return status;
}

int Ssh::runOn(libssh2pp::Channel& channel, const RemoteRequest& request) {
    RunningCommand command(channel, request, *this);
    command.sendInput();
    channel.sendEof();
    command.drainOutput();
    return command.waitForExitStatus();
}

std::string Ssh::shown(const std::string& text) const {
    return commandsHidden_ ? kHiddenText : text;
}

void Ssh::serveAlarm() {
    if (Alarm* const alarm = alarm_) {
        alarm->doAlarm();
    }
}

int Ssh::get(std::ostream& out, std::ostream& err, const std::string& remotePath, Counter& counter) {
    debugLine(category()) << "Reading data from the remote file " << shown(remotePath);
    const std::string command = "cat " + sh_quote(remotePath);
    std::istringstream noInput;
    const int status = run({command, noInput, out, err, true, true, counter, kDownloadWindow});
    if (status == 0 && !out.flush()) {  // the last bytes count as well
        throw KORVA_EXC(StreamWrite);
    }
    return status;
}

int Ssh::get(std::ostream& out, const std::string& remotePath) {
    DiscardStream err;
    return get(out, err, remotePath, null_counter);
}

int Ssh::get(const std::string& localPath, std::ostream& err, const std::string& remotePath,
             Counter& counter) {
    debugLine(category()) << "Reading data to the file " << localPath;
    const UmaskScope umask(022);
    OutputFile file(localPath);
    const int status = get(file, err, remotePath, counter);
    if (status == 0) {
        file.close();
    } else if (file.isOpen()) {
        std::ignore = unlink(localPath.c_str());  // what is left says nothing that the status does not
    }
    return status;
}

int Ssh::get(const std::string& localPath, const std::string& remotePath) {
    DiscardStream err;
    return get(localPath, err, remotePath, null_counter);
}

void Ssh::put(std::istream& in, const std::string& remotePath) {
    debugLine(category()) << "Writing data to the remote file " << remotePath;
    const std::string command = "cat > " + sh_quote(remotePath);
    DiscardStream discarded;
    if (const int status = exec(command, in, discarded, discarded, true, true, null_counter); status != 0) {
        errorLine(category()) << "Writing to the remote file " << remotePath << " has ended with return code "
                              << status;
    }
}

void Ssh::put(const std::string& localPath, const std::string& remotePath) {
    debugLine(category()) << "Writing file " << localPath << " to the remote host";
    std::ifstream file(localPath);
    if (!file) {  // it is an empty input all the same
        errorLine(category()) << "Cannot read " << localPath << ": " << std::strerror(errno);
    }
    put(file, remotePath);
}

void Ssh::logPump(const char* data, int size) {
    debugLine(category()) << "remote stdin <- " << memchunk_log{data, size};
}

}  // namespace korva
