// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_libssh2.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

// libssh2 declares the type and leaves its contents to the library.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
struct _LIBSSH2_SESSION {
    void* abstract = nullptr;
};
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace korva::test {
namespace {

FakeLibssh2* current = nullptr;
_LIBSSH2_SESSION theOnlySession;

FakeLibssh2& fake() {
    if (current == nullptr) {
        throw std::logic_error("libssh2 was called without a FakeLibssh2");
    }
    return *current;
}

template <typename T>
T take(std::deque<T>& results, T otherwise) {
    if (results.empty()) {
        return otherwise;
    }
    const T result = results.front();
    results.pop_front();
    return result;
}

int takeResult(std::deque<int>& results) {
    return fake().setLastError(take(results, 0));
}

// The program only passes channel pointers on, so the script itself can stand behind them.
FakeChannel& scriptOf(LIBSSH2_CHANNEL* channel) {
    auto& script = *reinterpret_cast<FakeChannel*>(channel);
    if (script.freed) {
        throw std::logic_error("a channel was used after it was freed");
    }
    return script;
}

}  // namespace

bool FakeChannel::hasData() const {
    return std::any_of(std::begin(reads), std::end(reads), [](const std::deque<FakeRead>& stream) {
        return !stream.empty() && !stream.front().data.empty();
    });
}

FakeLibssh2::FakeLibssh2() {
    current = this;
    theOnlySession.abstract = nullptr;
}

FakeLibssh2::~FakeLibssh2() {
    current = nullptr;
}

FakeChannel& FakeLibssh2::nextChannel() {
    return *scripted_.emplace_back(std::make_unique<FakeChannel>());
}

FakeChannel* FakeLibssh2::open() {
    if (scripted_.empty()) {
        nextChannel();
    }
    opened_.push_back(std::move(scripted_.front()));
    scripted_.pop_front();
    return opened_.back().get();
}

std::vector<std::string> FakeLibssh2::callsOf(const std::string& prefix) const {
    std::vector<std::string> found;
    std::copy_if(calls.begin(), calls.end(), std::back_inserter(found),
                 [&](const std::string& call) { return call.starts_with(prefix); });
    return found;
}

void FakeLibssh2::record(const std::string& call) {
    constexpr std::size_t kSurelyASpin = 200000;
    if (calls.size() > kSurelyASpin) {
        throw std::runtime_error("libssh2 is called without end");
    }
    onCall(call);
    calls.push_back(call);
}

void FakeLibssh2::recordTransfer(const std::string& call) {
    if (blocking) {
        callsInBlockingMode.push_back(call);
    }
    record(call);
}

int FakeLibssh2::setLastError(int error) {
    lastError_ = error;
    return error;
}

char* FakeLibssh2::methodListText() {
    if (!methodList) {
        return nullptr;
    }
    methodListText_.assign(methodList->begin(), methodList->end());
    methodListText_.push_back('\0');
    return methodListText_.data();
}

}  // namespace korva::test

using korva::test::fake;
using korva::test::FakeChannel;
using korva::test::FakeRead;
using korva::test::scriptOf;
using korva::test::take;
using korva::test::takeResult;

extern "C" {

LIBSSH2_SESSION* libssh2_session_init_ex(LIBSSH2_ALLOC_FUNC((*my_alloc)), LIBSSH2_FREE_FUNC((*my_free)),
                                         LIBSSH2_REALLOC_FUNC((*my_realloc)), void* abstract) {
    const bool allNull =
        my_alloc == nullptr && my_free == nullptr && my_realloc == nullptr && abstract == nullptr;
    fake().record(allNull ? "session_init" : "session_init with allocators");
    return fake().initFails ? nullptr : &korva::test::theOnlySession;
}

int libssh2_session_method_pref(LIBSSH2_SESSION* /*session*/, int methodType, const char* prefs) {
    fake().record("method_pref " + std::to_string(methodType) + " " + prefs);
    return std::strcmp(prefs, "none") == 0 ? LIBSSH2_ERROR_METHOD_NOT_SUPPORTED : 0;
}

void libssh2_session_set_timeout(LIBSSH2_SESSION* /*session*/, long timeout) {
    fake().record("set_timeout " + std::to_string(timeout));
}

int libssh2_session_startup(LIBSSH2_SESSION* /*session*/, int /*sock*/) {
    fake().record("startup");
    return takeResult(fake().startup);
}

int libssh2_session_last_error(LIBSSH2_SESSION* /*session*/, char** errmsg, int* /*errmsg_len*/,
                               int /*want_buf*/) {
    if (errmsg != nullptr) {
        *errmsg = fake().lastErrorText.data();
    }
    return fake().lastError();
}

const char* libssh2_session_methods(LIBSSH2_SESSION* /*session*/, int methodType) {
    return methodType == LIBSSH2_METHOD_CRYPT_SC ? fake().cipher.c_str() : "another method";
}

void** libssh2_session_abstract(LIBSSH2_SESSION* session) {
    return &session->abstract;
}

int libssh2_session_free(LIBSSH2_SESSION* /*session*/) {
    fake().record("session_free");
    ++fake().sessionsFreed;
    return take(fake().sessionFree, 0);
}

char* libssh2_userauth_list(LIBSSH2_SESSION* /*session*/, const char* username, unsigned int usernameLength) {
    fake().record("userauth_list " + std::string(username, usernameLength));
    return fake().methodListText();
}

int libssh2_userauth_password_ex(LIBSSH2_SESSION* /*session*/, const char* username,
                                 unsigned int usernameLength, const char* password,
                                 unsigned int passwordLength,
                                 LIBSSH2_PASSWD_CHANGEREQ_FUNC((*passwordChange))) {
    fake().record("password " + std::string(username, usernameLength) + " " +
                  std::string(password, passwordLength) +
                  (passwordChange != nullptr ? " with a callback" : ""));
    return takeResult(fake().passwordResults);
}

int libssh2_userauth_keyboard_interactive_ex(LIBSSH2_SESSION* session, const char* username,
                                             unsigned int usernameLength,
                                             LIBSSH2_USERAUTH_KBDINT_RESPONSE_FUNC((*respond))) {
    fake().record("keyboard-interactive " + std::string(username, usernameLength));
    for (const int count : fake().promptCounts) {
        const std::vector<LIBSSH2_USERAUTH_KBDINT_PROMPT> prompts(static_cast<std::size_t>(count));
        std::vector<LIBSSH2_USERAUTH_KBDINT_RESPONSE> responses(static_cast<std::size_t>(count));
        respond("", 0, "", 0, count, prompts.data(), responses.data(), &session->abstract);
        for (const auto& response : responses) {
            fake().answers.emplace_back(response.text, response.length);
            std::free(response.text);
        }
    }
    return takeResult(fake().keyboardResults);
}

LIBSSH2_CHANNEL* libssh2_channel_open_ex(LIBSSH2_SESSION* /*session*/, const char* type,
                                         unsigned int typeLength, unsigned int windowSize,
                                         unsigned int packetSize, const char* message,
                                         unsigned int messageLength) {
    fake().record("open " + std::string(type, typeLength) + " " + std::to_string(windowSize) + " " +
                  std::to_string(packetSize) +
                  (message != nullptr || messageLength != 0 ? " with a message" : ""));
    if (takeResult(fake().opens) != 0) {
        return nullptr;
    }
    return reinterpret_cast<LIBSSH2_CHANNEL*>(fake().open());
}

void libssh2_channel_set_blocking(LIBSSH2_CHANNEL* channel, int blocking) {
    scriptOf(channel);
    fake().record("set_blocking " + std::to_string(blocking));
    fake().blocking = blocking != 0;
}

int libssh2_channel_process_startup(LIBSSH2_CHANNEL* channel, const char* request, unsigned int requestLength,
                                    const char* message, unsigned int messageLength) {
    fake().record(std::string(request, requestLength) + " " + std::string(message, messageLength));
    return takeResult(scriptOf(channel).startup);
}

ssize_t libssh2_channel_read_ex(LIBSSH2_CHANNEL* channel, int stream, char* buffer, std::size_t size) {
    fake().recordTransfer("read " + std::to_string(stream) + " " + std::to_string(size));
    std::deque<FakeRead>& reads = scriptOf(channel).reads[stream];
    if (reads.empty()) {
        return scriptOf(channel).eof() ? 0 : LIBSSH2_ERROR_EAGAIN;
    }
    FakeRead& read = reads.front();
    const std::size_t length = std::min(size, read.data.size());
    const ssize_t result = length > 0 ? static_cast<ssize_t>(length) : read.error;
    std::memcpy(buffer, read.data.data(), length);
    scriptOf(channel).window -= static_cast<unsigned>(length);
    read.data.erase(0, length);
    if (read.data.empty()) {
        reads.pop_front();
    }
    return result;
}

int libssh2_channel_receive_window_adjust2(LIBSSH2_CHANNEL* channel, unsigned long adjustment,
                                           unsigned char force, unsigned int* windowBefore) {
    FakeChannel& script = scriptOf(channel);
    if (windowBefore != nullptr) {
        *windowBefore = script.window;
    }
    if (adjustment == 0 && force == 0) {
        return 0;
    }
    fake().recordTransfer("adjust " + std::to_string(adjustment));
    const int result = takeResult(script.adjusts);
    if (result == 0) {
        script.window += static_cast<unsigned>(adjustment);
    }
    return result;
}

ssize_t libssh2_channel_write_ex(LIBSSH2_CHANNEL* channel, int stream, const char* buffer, std::size_t size) {
    fake().recordTransfer("write " + std::to_string(stream) + " " + std::to_string(size));
    const int most = take(scriptOf(channel).writes, static_cast<int>(size));
    if (most <= 0) {
        return most;
    }
    const std::size_t taken = std::min(size, static_cast<std::size_t>(most));
    scriptOf(channel).input.append(buffer, taken);
    return static_cast<ssize_t>(taken);
}

int libssh2_channel_send_eof(LIBSSH2_CHANNEL* channel) {
    fake().record("send_eof");
    return takeResult(scriptOf(channel).sendEof);
}

int libssh2_channel_eof(LIBSSH2_CHANNEL* channel) {
    const FakeChannel& script = scriptOf(channel);
    return script.eofError != 0 ? script.eofError : static_cast<int>(script.eof());
}

int libssh2_poll(LIBSSH2_POLLFD* fds, unsigned int nfds, long timeout) {
    fake().record("poll " + std::to_string(nfds) + " " + std::to_string(fds->type) + " " +
                  std::to_string(fds->events) + " " + std::to_string(timeout));
    fds->revents = take(scriptOf(fds->fd.channel).pollEvents, 0UL);
    return fds->revents != 0 ? 1 : 0;
}

int libssh2_poll_channel_read(LIBSSH2_CHANNEL* channel, int extended) {
    FakeChannel& script = scriptOf(channel);
    fake().record("poll_channel_read " + std::to_string(extended));
    return take(script.queued, script.hasData() ? 1 : 0);
}

int libssh2_channel_wait_closed(LIBSSH2_CHANNEL* channel) {
    fake().recordTransfer("wait_closed");
    return takeResult(scriptOf(channel).waitClosed);
}

int libssh2_channel_get_exit_status(LIBSSH2_CHANNEL* channel) {
    fake().record("exit_status");
    return scriptOf(channel).exitStatus;
}

int libssh2_channel_get_exit_signal(LIBSSH2_CHANNEL* channel, char** signal, std::size_t* signalLength,
                                    char** /*message*/, std::size_t* /*messageLength*/, char** /*language*/,
                                    std::size_t* /*languageLength*/) {
    fake().record("exit_signal");
    const std::string& name = scriptOf(channel).exitSignal;
    const int error = scriptOf(channel).exitSignalError;
    *signal = name.empty() || error != 0 ? nullptr : ::strdup(name.c_str());
    if (signalLength != nullptr) {
        *signalLength = name.size();
    }
    return error;
}

int libssh2_channel_free(LIBSSH2_CHANNEL* channel) {
    fake().recordTransfer("free");
    FakeChannel& script = scriptOf(channel);
    const int result = take(script.free, 0);
    script.freed = result == 0;
    return result;
}

}  // extern "C"
