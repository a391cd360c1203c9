// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"
#include "commons/secret_mask.h"
#include "ssh/alarm.h"

#include <atomic>
#include <iosfwd>
#include <memory>
#include <string>

namespace korva {

class Socket;
struct RemoteRequest;
namespace libssh2pp {
class Channel;
class Session;
}  // namespace libssh2pp

KORVA_ERROR_TAG(SshInvalidCredentials,
                "Unable to connect to host %1%: you have specified incorrect username or password")

/// The one SSH connection of a run: runs commands on the source host and moves files, one at a time.
/// Whatever the remote side repeats of the secrets is hidden in the log and on standard error, never in
/// standard output.
class Ssh {
  public:
    /// Told of the remote standard output as it comes.
    class Counter {
      public:
        virtual ~Counter() = default;
        /// `bytes`: the size of the next piece, 1 to 65536.
        virtual void operator()(int bytes) = 0;
    };
    /// Counts nothing.
    class NullCounter : public Counter {
      public:
        void operator()(int /*bytes*/) override {}
    };
    static NullCounter null_counter;

    /// Connects, starts the session (once more in compatibility mode on a new connection when the first
    /// start fails) and authenticates. Throws what Socket and libssh2pp::Session throw;
    /// SshInvalidCredentials when the server accepts neither method.
    Ssh(const std::string& host, const std::string& login, const std::string& password, bool noEncryption,
        unsigned short port);
    Ssh(const Ssh&) = delete;
    Ssh& operator=(const Ssh&) = delete;
    ~Ssh();

    /// Runs `command` with `in` as its standard input. Returns its exit status: 255 when the server refuses
    /// to run it, 128 plus the signal's number when a signal ended it. `quietOutput` and `quietInput` keep
    /// the data out of the log. While it waits for output it wakes up every 5 seconds at least.
    /// Throws StreamRead, StreamWrite, UnableToSendEof, SshConnectionFault, InvalidHandle,
    /// MigrationTerminatedException, and what the alarm throws.
    int exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
             bool quietOutput, bool quietInput, Counter& counter);
    /// The same with an empty input.
    int exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
             Counter& counter);

    /// Downloads `remotePath`. Returns the exit status of the remote "cat". Throws as exec() does.
    int get(std::ostream& out, std::ostream& err, const std::string& remotePath, Counter& counter);
    int get(std::ostream& out, const std::string& remotePath);
    /// Downloads into `localPath`, created under umask 022 whatever the process umask, and deleted when the
    /// status is not zero. A symbolic link in its place is not followed, what is no regular file not opened.
    /// Throws StreamWrite when the file cannot be opened, written or closed.
    int get(const std::string& localPath, std::ostream& err, const std::string& remotePath, Counter& counter);
    int get(const std::string& localPath, const std::string& remotePath);

    /// Uploads into `remotePath`. The remote exit status is only logged: callers verify by other means.
    void put(std::istream& in, const std::string& remotePath);
    /// A `localPath` that cannot be opened creates an empty remote file.
    void put(const std::string& localPath, const std::string& remotePath);

    /// Registers what is to be done at each wake-up of a running command; null for nothing. Not owned. Safe
    /// in a signal handler.
    void setAlarm(Alarm* alarm) { alarm_ = alarm; }

    /// One more password to hide; the login password is known already.
    void addSecret(const std::string& secret) { secrets_.add(secret); }
    const Secrets& secrets() const { return secrets_; }

    /// While commands are hidden, the log does not tell their words.
    void hideCommands(bool hidden) { commandsHidden_ = hidden; }

    /// Logs a chunk of standard input as it is.
    static void logPump(const char* data, int size);

    /// Does what is registered with setAlarm().
    void serveAlarm();

  private:
    int run(const RemoteRequest& request);
    int runOn(libssh2pp::Channel& channel, const RemoteRequest& request);
    std::string shown(const std::string& text) const;
    void startSession(const std::string& host, bool noEncryption, unsigned short port);

    Secrets secrets_;
    std::unique_ptr<Socket> socket_;  // outlives the session that runs on it
    std::unique_ptr<libssh2pp::Session> session_;
    std::atomic<Alarm*> alarm_ = nullptr;
    bool commandsHidden_ = false;
};

/// Hides commands that would show a secret in the log, when `hidden`, while it lives.
class HiddenCommands {
  public:
    HiddenCommands(Ssh& ssh, bool hidden) : ssh_(ssh) { ssh_.hideCommands(hidden); }
    HiddenCommands(const HiddenCommands&) = delete;
    HiddenCommands& operator=(const HiddenCommands&) = delete;
    ~HiddenCommands() { ssh_.hideCommands(false); }

  private:
    Ssh& ssh_;
};

}  // namespace korva
