// SPDX-License-Identifier: Apache-2.0
#include "commons/log_line.h"
#include "ssh/libssh2pp.h"
#include "ssh/socket_wait.h"

#include <log4cpp/Category.hh>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string_view>

namespace korva::libssh2pp {
namespace {

constexpr const char* kSourceName = "./libssh2pp";

constexpr unsigned long kSessionAndChannelClosed =
    LIBSSH2_POLLFD_SESSION_CLOSED | LIBSSH2_POLLFD_CHANNEL_CLOSED;

log4cpp::Category& category() {
    return log4cpp::Category::getInstance("k.libssh2pp.Channel");
}

constexpr int kStatusOfUnknownSignal = 255;

// The signals that a server can name (RFC 4254, section 6.10).
int exitStatusOfSignal(std::string_view name) {
    static const std::map<std::string_view, int> kNumbers = {
        {"ABRT", SIGABRT}, {"ALRM", SIGALRM}, {"FPE", SIGFPE},   {"HUP", SIGHUP},   {"ILL", SIGILL},
        {"INT", SIGINT},   {"KILL", SIGKILL}, {"PIPE", SIGPIPE}, {"QUIT", SIGQUIT}, {"SEGV", SIGSEGV},
        {"TERM", SIGTERM}, {"USR1", SIGUSR1}, {"USR2", SIGUSR2}};
    const auto known = kNumbers.find(name);
    return known == kNumbers.end() ? kStatusOfUnknownSignal : 128 + known->second;
}

}  // namespace

void dvx_libssh2_channel_free(LIBSSH2_CHANNEL* channel) {
    libssh2_channel_free(channel);
}

Channel::Channel(LIBSSH2_CHANNEL* channel, Session& session) : Handle(channel), session_(session) {
    session_.channelOpened();
}

Channel::~Channel() {
    debugOrNothing(&category, "Closed");
    setMode(kNonBlocking);  // blocking, it would wait until the remote command ends
    const bool freed = freeAtOnce();
    LIBSSH2_CHANNEL* const channel = release();
    session_.channelGone();
    if (!freed) {
        session_.abandon(channel);
    }
}

// False when the remote side has not closed the channel yet.
bool Channel::freeAtOnce() {
    constexpr int kMostWaits = 2;
    constexpr int kMostRepeats = 2;
    int waits = 0;
    int repeats = 0;
    int result = libssh2_channel_free(get());
    // A packet that is sent in part only would spoil the next one, so it gets some time to leave.
    while (result == LIBSSH2_ERROR_EAGAIN && waits < kMostWaits && repeats < kMostRepeats) {
        if (isWritable(session_.socket())) {
            ++repeats;
        } else {
            waitForSocket(session_.socket(), kWakeUpMs);
            ++waits;
        }
        result = libssh2_channel_free(get());
    }
    return result != LIBSSH2_ERROR_EAGAIN;
}

void Channel::setMode(Mode mode) {
    libssh2_channel_set_blocking(get(), mode);
}

int Channel::requestExec(const std::string& command) {
    return libssh2_channel_process_startup(get(), "exec", 4, command.data(),
                                           static_cast<unsigned>(command.size()));
}

// In blocking mode libssh2 waits for ever for a window that a command which has already exited never opens.
int Channel::write(const char* data, unsigned size) {
    int refusals = 0;
    while (!closedByRemote_) {
        const ssize_t written = libssh2_channel_write_ex(get(), 0, data, size);
        if (written != 0 && written != LIBSSH2_ERROR_EAGAIN) {
            return static_cast<int>(written);
        }
        if (isWritable(session_.socket())) {
            relieve(++refusals);
        } else {  // perhaps a packet is sent in part: only the very same call may follow
            waitForSocket(session_.socket(), kWakeUpMs);
            refusals = 0;
        }
    }
    return static_cast<int>(size);
}

// `refusals`: how many writes in a row libssh2 has refused though the socket takes bytes. From the third on
// the remote window is full and no packet is under way.
void Channel::relieve(int refusals) {
    constexpr int kWindowIsFull = 3;
    constexpr int kOutputIsStuck = 6;
    if (refusals < kWindowIsFull) {
        return;
    }
    if (refusals % 2 != 0) {
        whenFull_();
        receiveEvents();
        return;  // that may have brought a wider window: the next write is to look before anybody sleeps
    }
    // The write has just taken all from the socket. Output that it has queued is worth another round.
    if (refusals >= kOutputIsStuck || !hasQueuedData()) {
        waitForSocket(session_.socket(), kWakeUpMs);
    }
}

void Channel::sendEof() {
    const int result =
        repeatUntilDone(session_.socket(), kWakeUpMs, [this] { return libssh2_channel_send_eof(get()); });
    if (result < 0) {  // few of libssh2's errors are -1
        throw KORVA_EXC(UnableToSendEof) % session_.lastError();
    }
}

// libssh2 knows of no end while data is queued of any stream, and a server may invent some that nobody reads.
bool Channel::eof() {
    const int result = libssh2_channel_eof(get());
    if (result < 0) {
        throw KORVA_EXC(SshConnectionFault);
    }
    return result != 0 || std::all_of(ended_.begin(), ended_.end(), [](bool ended) { return ended; });
}

// Never in blocking mode: libssh2 tells of waiting standard error when only standard output waits, and a
// read of the empty stream would then block for ever.
int Channel::read(int stream, char* buffer, std::size_t size) {
    if (!openWindow()) {
        return 0;
    }
    const ssize_t got = libssh2_channel_read_ex(get(), stream, buffer, size);
    if (got == LIBSSH2_ERROR_EAGAIN) {
        return 0;
    }
    if (got < 0) {
        throw KORVA_EXC(SshConnectionFault);
    }
    if (got > 0) {
        queuedInVain_ = false;
    }
    // Where libssh2 could not look into its queue, as it has to send something first, that was
    // LIBSSH2_ERROR_EAGAIN.
    ended_.at(static_cast<std::size_t>(stream)) = got == 0 && closedByRemote_;
    return static_cast<int>(got);
}

// False when it cannot be done yet. Then nothing may be read: libssh2 would adjust a narrow window by itself,
// by an amount that fits the one that is under way no longer. Nor may reads that ask for more do this:
// libssh2 1.10 makes the window as wide as they ask for, but a negative one when it is interrupted by a
// change of keys.
bool Channel::openWindow() {
    if (window_ != 0 && unsentAdjustment_ == 0) {
        unsigned size = 0;
        libssh2_channel_receive_window_adjust2(get(), 0, 0, &size);  // tells the size and does no more
        unsentAdjustment_ = size < window_ / 4 * 3 ? window_ - size : 0;
    }
    if (unsentAdjustment_ != 0) {
        const int result = libssh2_channel_receive_window_adjust2(get(), unsentAdjustment_, 1, nullptr);
        if (result == LIBSSH2_ERROR_EAGAIN) {
            return false;
        }
        if (result < 0) {
            throw KORVA_EXC(SshConnectionFault);
        }
        unsentAdjustment_ = 0;
    }
    return true;
}

// True for either stream, though it is asked for standard error only.
bool Channel::hasQueuedData() {
    return libssh2_poll_channel_read(get(), 1) > 0;
}

// With a time-out, libssh2_poll() spins for ever on a connection that the server has closed, and sleeps
// through standard error: the sleeping is done by poll().
void Channel::receiveEvents() {
    LIBSSH2_POLLFD descriptor{};
    descriptor.type = LIBSSH2_POLLFD_CHANNEL;
    descriptor.fd.channel = get();
    descriptor.events = LIBSSH2_POLLFD_POLLIN;
    libssh2_poll(&descriptor, 1, 0);
    if ((descriptor.revents & kSessionAndChannelClosed) == kSessionAndChannelClosed) {
        throw KORVA_EXC(SshConnectionFault);
    }
    closedByRemote_ = closedByRemote_ || (descriptor.revents & LIBSSH2_POLLFD_CHANNEL_CLOSED) != 0;
}

void Channel::poll(int timeout) {
    // Data may be queued while the socket is idle. Queued but unread twice in a row means that libssh2 itself
    // waits for the socket, for a key exchange say.
    const auto worthReading = [this] {
        queuedInVain_ = !queuedInVain_ && hasQueuedData();
        return queuedInVain_;
    };
    const bool readInVain = queuedInVain_;
    if (worthReading()) {
        return;
    }
    const bool wasClosed = closedByRemote_;
    receiveEvents();
    if (eof() || closedByRemote_ != wasClosed || (!readInVain && worthReading())) {
        return;
    }
    waitForSocket(session_.socket(), timeout);
}

bool Channel::closed() {
    const int result = libssh2_channel_wait_closed(get());
    if (result < 0 && result != LIBSSH2_ERROR_EAGAIN) {  // else a lost connection would look like status 0
        throw KORVA_EXC(SshConnectionFault);
    }
    return result == 0;
}

void Channel::waitForClose(int timeout) {
    waitForSocket(session_.socket(), timeout);
}

int Channel::exitStatus() {
    const int status = libssh2_channel_get_exit_status(get());
    if (status != 0) {
        return status;
    }
    // libssh2 reports status 0 for a command that a signal has killed.
    char* signalName = nullptr;
    const int result =
        libssh2_channel_get_exit_signal(get(), &signalName, nullptr, nullptr, nullptr, nullptr, nullptr);
    const std::unique_ptr<char, void (*)(void*)> owner(signalName, &std::free);
    if (result < 0) {  // there was no memory for the name of the signal
        return kStatusOfUnknownSignal;
    }
    return signalName == nullptr ? 0 : exitStatusOfSignal(signalName);
}

}  // namespace korva::libssh2pp
