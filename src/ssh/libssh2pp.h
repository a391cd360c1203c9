// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"
#include "commons/handle.h"

#include <libssh2.h>

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korva {

KORVA_ERROR_TAG(UnableToStartSshSession, "Unable to start SSH session: %1%")
KORVA_ERROR_TAG(SshAuthorizationFailed, "No suitable username/password found")
KORVA_ERROR_TAG(SshConnectionFault, "Lost connection with the remote host")
KORVA_ERROR_TAG(UnableToSendEof, "Unable to send EOF to SSH channel: %1%")

namespace libssh2pp {

class Session;

/// libssh2_channel_free() with its result dropped.
void dvx_libssh2_channel_free(LIBSSH2_CHANNEL* channel);

/// One remote command's channel (RFC 4254, section 6). The session is in libssh2's non-blocking mode while
/// a channel is used: what has to wait, waits on the socket, where signals may come in.
class Channel : public Handle<LIBSSH2_CHANNEL*, &dvx_libssh2_channel_free> {
  public:
    /// The blocking mode of libssh2; it is a property of the whole session.
    enum Mode { kNonBlocking = 0, kBlocking = 1 };

    /// Takes `channel` over; throws InvalidHandle when it is null. `session` outlives the channel.
    Channel(LIBSSH2_CHANNEL* channel, Session& session);
    /// Frees the channel without waiting for a remote command that still runs.
    ~Channel() override;

    void setMode(Mode mode);

    /// Asks for `command` to be run: 0, or libssh2's negative error; LIBSSH2_ERROR_EAGAIN asks for the
    /// same call again.
    int requestExec(const std::string& command);

    /// Sends input. Returns the number of bytes taken, at least 1, or libssh2's negative error. Once the
    /// remote side has closed the channel the rest of the input has no reader: it is taken and dropped.
    /// While the remote side takes no more, the function of setWhenFull() is called: it is to read the
    /// command's output, which may be what the command waits for.
    int write(const char* data, unsigned size);
    void setWhenFull(std::function<void()> whenFull) { whenFull_ = std::move(whenFull); }

    /// Tells the remote side that the input has ended. Throws UnableToSendEof.
    void sendEof();

    /// Whether the remote side has sent its last byte and all was read that somebody reads: what it sends on
    /// a stream of its own invention counts for nothing. Throws SshConnectionFault.
    bool eof();

    /// From now on the remote side may send up to `window` bytes ahead of read() (RFC 4254, section 5.2);
    /// with 0 it is up to libssh2, which allows 128 KiB.
    void keepWindowOpen(unsigned window) { window_ = window; }

    /// Reads from standard output (stream 0) or standard error (stream 1) what is there, at most `size`
    /// bytes; 0 when there is nothing at present. Throws SshConnectionFault.
    int read(int stream, char* buffer, std::size_t size);

    /// One wait for input, `timeout` milliseconds at the most. Throws SshConnectionFault.
    void poll(int timeout);

    /// Whether the remote side has closed the channel; if not yet, it may after another wait. Only after
    /// eof(). Throws SshConnectionFault when the connection is lost.
    bool closed();

    /// One wait for the remote side to close the channel, `timeout` milliseconds at the most.
    void waitForClose(int timeout);

    /// The command's exit status; 128 plus the signal's number when a signal ended it, 255 when that signal
    /// is none of RFC 4254's. Only after closed().
    int exitStatus();

  private:
    bool freeAtOnce();
    void relieve(int refusals);
    void receiveEvents();
    bool hasQueuedData();
    bool openWindow();

    Session& session_;
    std::function<void()> whenFull_ = [] {};
    bool closedByRemote_ = false;     // everything that came before is in libssh2's queue then
    std::array<bool, 2> ended_ = {};  // whether that holds nothing more of a stream
    bool queuedInVain_ = false;
    unsigned window_ = 0;
    unsigned unsentAdjustment_ = 0;
};

/// A libssh2 session on a connected socket.
class Session : public Handle<LIBSSH2_SESSION*, &libssh2_session_free> {
  public:
    /// Starts the session. The descriptor stays the caller's and must outlive the session. No host key is
    /// checked. `compatibility` offers the oldest key exchange only, and opens a reserve channel after
    /// authorize(). Throws InvalidHandle, UnableToStartSshSession.
    Session(int socket, bool noEncryption, bool compatibility);
    ~Session() override;

    /// Authenticates (RFC 4252) by password or, failing that, keyboard-interactive (RFC 4256). Throws
    /// SshAuthorizationFailed, InvalidHandle without a method list, SshConnectionFault.
    void authorize(const std::string& login, const std::string& password);

    /// Fills `methods` with the server's authentication methods, empty names included.
    void getAuthMethodsList(const std::string& login, std::vector<std::string>& methods);

    /// Opens a channel and runs `command` on it; null when the server refuses to run it. `shownCommand` is
    /// what the log tells of it. Throws InvalidHandle when the server grants no channel, SshConnectionFault
    /// when the connection is lost.
    std::unique_ptr<Channel> openExecChannel(const std::string& command, const std::string& shownCommand,
                                             Channel::Mode mode);

    /// Answers each prompt with the password that the session's abstract pointer names.
    static LIBSSH2_USERAUTH_KBDINT_RESPONSE_FUNC(userauth_callback);

    /// libssh2's text for the last error.
    std::string lastError() const;

    int socket() const { return socket_; }

    /// Keeps a channel that the remote side has not closed yet, for the session to free at its end. There is
    /// room for each one that is open.
    void abandon(LIBSSH2_CHANNEL* channel) { abandoned_.push_back(channel); }

    // For the channels.
    void channelOpened() { ++openChannels_; }
    void channelGone() { --openChannels_; }

  private:
    void start(bool noEncryption);
    bool authorizeByPassword(const std::string& login, const std::string& password);
    bool authorizeByKeyboardInteractive(const std::string& login, const std::string& password);
    std::unique_ptr<Channel> openSessionChannel();
    void create_reserve_channel();

    int socket_;
    bool compatibility_;
    std::vector<LIBSSH2_CHANNEL*> abandoned_;
    std::size_t openChannels_ = 0;
    std::unique_ptr<Channel> reserveChannel_;
};

}  // namespace libssh2pp
}  // namespace korva
