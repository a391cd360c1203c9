// SPDX-License-Identifier: Apache-2.0
#include "commons/log_line.h"
#include "ssh/libssh2pp.h"
#include "ssh/socket_wait.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <log4cpp/Category.hh>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <tuple>

namespace korva::libssh2pp {
namespace {

constexpr const char* kSourceName = "./libssh2pp";

constexpr long kServerSilenceLimitMs = 120000;
constexpr unsigned kWindowSize = 65536;
constexpr unsigned kPacketSize = 16384;

// What libssh2 calls "Unable to exchange encryption keys" when it finds no algorithm that both sides know.
constexpr const char* kNothingInCommon =
    "The server and this program's SSH library have no key exchange, host key, cipher or MAC method in "
    "common. A server that has an RSA host key only is such a case: the library knows RSA signatures with "
    "SHA-1 only, which such servers no longer offer";

log4cpp::Category& category() {
    return log4cpp::Category::getInstance("k.libssh2pp.Session");
}

void keepForTheSession(char* /*text*/) {}  // freeing it would abort the program when the session is freed

bool offers(const std::vector<std::string>& methods, std::string_view method) {
    return std::find(methods.begin(), methods.end(), method) != methods.end();
}

bool meansLostConnection(int error) {
    switch (error) {
        case LIBSSH2_ERROR_SOCKET_NONE:
        case LIBSSH2_ERROR_SOCKET_SEND:
        case LIBSSH2_ERROR_TIMEOUT:
        case LIBSSH2_ERROR_SOCKET_DISCONNECT:
        case LIBSSH2_ERROR_SOCKET_TIMEOUT:
        case LIBSSH2_ERROR_SOCKET_RECV:
        case LIBSSH2_ERROR_BAD_SOCKET:
            return true;
        default:
            return false;
    }
}

// All other failures of an authentication method say nothing of the credentials.
bool meansRefusal(int error) {
    return error == LIBSSH2_ERROR_AUTHENTICATION_FAILED || error == LIBSSH2_ERROR_PASSWORD_EXPIRED ||
           error == LIBSSH2_ERROR_METHOD_NOT_SUPPORTED;
}

// What libssh2 could not free stays reachable until the process ends, soon after: waiting for a remote
// command that still runs would take as long as that command.
std::vector<LIBSSH2_SESSION*>& leftToProcessEnd() {
    static auto& left = *new std::vector<LIBSSH2_SESSION*>();  // outlives static destructors
    return left;
}

}  // namespace

Session::Session(int socket, bool noEncryption, bool compatibility)
    : Handle(libssh2_session_init_ex(nullptr, nullptr, nullptr, nullptr)),
      socket_(socket),
      compatibility_(compatibility) {
    leftToProcessEnd().reserve(leftToProcessEnd().size() + 1);  // the destructor must find room
    debugLine(category()) << "Trying to start SSH session";
    start(noEncryption);
}

Session::~Session() {
    debugOrNothing(&category, "SSH session finished");
    reserveChannel_.reset();
    if (!abandoned_.empty()) {
        libssh2_channel_set_blocking(abandoned_.front(), Channel::kNonBlocking);
        leftToProcessEnd().push_back(get());
    }
}

void Session::start(bool noEncryption) {
    if (noEncryption) {
        debugLine(category()) << "Disabling SSH encryption";
        // libssh2 has no such cipher and refuses: the session is encrypted all the same.
        std::ignore = libssh2_session_method_pref(get(), LIBSSH2_METHOD_CRYPT_CS, "none");
        std::ignore = libssh2_session_method_pref(get(), LIBSSH2_METHOD_CRYPT_SC, "none");
    }
    if (compatibility_) {
        std::ignore = libssh2_session_method_pref(get(), LIBSSH2_METHOD_KEX, "diffie-hellman-group1-sha1");
    }
    // libssh2 itself would wait for ever, here and for each step of the authentication.
    libssh2_session_set_timeout(get(), kServerSilenceLimitMs);
    if (const int result = libssh2_session_startup(get(), socket_); result != 0) {
        const std::string reason = lastError();
        errorLine(category()) << "SSH session was not started: " << reason;
        // The compatibility mode offers less than the first start, so there it would mislead.
        if (result == LIBSSH2_ERROR_KEX_FAILURE && !compatibility_) {
            errorLine(category()) << kNothingInCommon;
        }
        throw KORVA_EXC(UnableToStartSshSession) % reason;
    }
    const char* const cipher = libssh2_session_methods(get(), LIBSSH2_METHOD_CRYPT_SC);
    debugLine(category()) << "Selected " << (cipher != nullptr ? cipher : "no") << " encryption method";
    debugLine(category()) << "SSH session started successfully";
}

std::string Session::lastError() const {
    char* text = nullptr;
    libssh2_session_last_error(get(), &text, nullptr, 0);
    return text != nullptr ? text : "";
}

void Session::getAuthMethodsList(const std::string& login, std::vector<std::string>& methods) {
    debugLine(category()) << "Getting userauth methods for user '" << login << "'";
    const Handle<char*, &keepForTheSession> list(
        libssh2_userauth_list(get(), login.data(), static_cast<unsigned>(login.size())));
    debugLine(category()) << "Got the following allowed userauth methods: " << list.get();
    boost::algorithm::split(methods, std::string(list.get()), boost::algorithm::is_any_of(","));
}

void Session::authorize(const std::string& login, const std::string& password) {
    debugLine(category()) << "Requested authorization for user " << login;
    std::vector<std::string> methods;
    getAuthMethodsList(login, methods);
    const bool accepted =
        (offers(methods, "password") && authorizeByPassword(login, password)) ||
        (offers(methods, "keyboard-interactive") && authorizeByKeyboardInteractive(login, password));
    if (!accepted) {
        errorLine(category()) << "Authentication failed";
        throw KORVA_EXC(SshAuthorizationFailed);
    }
    if (compatibility_) {
        create_reserve_channel();
    }
}

bool Session::authorizeByPassword(const std::string& login, const std::string& password) {
    debugLine(category()) << "Trying 'password' authentication";
    const int result = libssh2_userauth_password_ex(
        get(), login.c_str(), static_cast<unsigned>(std::strlen(login.c_str())), password.c_str(),
        static_cast<unsigned>(std::strlen(password.c_str())), nullptr);
    if (result != 0 && !meansRefusal(result)) {
        throw KORVA_EXC(SshConnectionFault);
    }
    if (result == 0) {
        debugLine(category()) << "Authenticated succesfully";  // the spelling is fixed
    }
    return result == 0;
}

bool Session::authorizeByKeyboardInteractive(const std::string& login, const std::string& password) {
    debugLine(category()) << "Trying 'keyboard-interactive' authentication";
    *libssh2_session_abstract(get()) = const_cast<std::string*>(&password);
    const int result = libssh2_userauth_keyboard_interactive_ex(
        get(), login.data(), static_cast<unsigned>(login.size()), &Session::userauth_callback);
    *libssh2_session_abstract(get()) = nullptr;
    // libssh2 gives the code of a refusal to a connection that was lost while it waited for the answer.
    const bool lostWhileWaiting =
        result == LIBSSH2_ERROR_AUTHENTICATION_FAILED && lastError().starts_with("Waiting for keyboard");
    if ((result != 0 && !meansRefusal(result)) || lostWhileWaiting) {
        throw KORVA_EXC(SshConnectionFault);
    }
    if (result == 0) {
        debugLine(category()) << "Authenticated successfully";
    }
    return result == 0;
}

LIBSSH2_USERAUTH_KBDINT_RESPONSE_FUNC(Session::userauth_callback) {
    std::ignore = std::make_tuple(name, name_len, instruction, instruction_len, prompts);
    try {
        debugLine(category()) << "'keyboard-interactive' callback requested. "
                              << "Filling " << num_prompts << " responses with the password";
    } catch (...) {  // NOLINT(bugprone-empty-catch): no exception may pass through libssh2
    }
    const auto& password = *static_cast<const std::string*>(*abstract);
    for (int i = 0; i < num_prompts; ++i) {
        // libssh2 frees each response itself, so it gets a malloc copy without a terminating zero.
        responses[i].text = static_cast<char*>(std::malloc(std::max<std::size_t>(password.size(), 1)));
        if (responses[i].text == nullptr) {
            return;  // a response without text counts as empty
        }
        std::memcpy(responses[i].text, password.data(), password.size());
        responses[i].length = static_cast<unsigned>(password.size());
    }
}

std::unique_ptr<Channel> Session::openSessionChannel() {
    abandoned_.reserve(abandoned_.size() + openChannels_ + 1);  // destructors must find room
    LIBSSH2_CHANNEL* channel = nullptr;
    // The mode is the session's, and an earlier channel has left it non-blocking.
    const int result = repeatUntilDone(socket_, kWakeUpMs, [&] {
        channel = libssh2_channel_open_ex(get(), "session", 7, kWindowSize, kPacketSize, nullptr, 0);
        return channel != nullptr ? 0 : libssh2_session_last_error(get(), nullptr, nullptr, 0);
    });
    if (meansLostConnection(result)) {  // else the manager could not tell it from a server that refuses
        throw KORVA_EXC(SshConnectionFault);
    }
    try {
        return std::make_unique<Channel>(channel, *this);
    } catch (const std::bad_alloc&) {
        abandon(channel);
        throw;
    }
}

void Session::create_reserve_channel() {
    debugLine(category()) << "Create a reserve channel";
    reserveChannel_ = openSessionChannel();
    reserveChannel_->setMode(Channel::kNonBlocking);
    // Its answer is waited for, or libssh2 would take the next command's for it; whatever it is, it counts
    // for nothing.
    constexpr int kMostSleeps = 10;
    std::ignore = repeatUntilDone(
        socket_, 1000, [this] { return reserveChannel_->requestExec("cat"); }, kMostSleeps);
}

std::unique_ptr<Channel> Session::openExecChannel(const std::string& command, const std::string& shownCommand,
                                                  Channel::Mode mode) {
    debugLine(category()) << "Opening SSH channel for command '" << shownCommand << "'";
    std::unique_ptr<Channel> channel = openSessionChannel();
    channel->setMode(mode);
    const int result = repeatUntilDone(socket_, kWakeUpMs, [&] { return channel->requestExec(command); });
    // A refused command never ends by itself on a server that leaves the channel open. LIBSSH2_ERROR_INVAL:
    // too long to be sent at all.
    if (result == LIBSSH2_ERROR_CHANNEL_REQUEST_DENIED || result == LIBSSH2_ERROR_INVAL) {
        return nullptr;
    }
    if (result < 0) {
        throw KORVA_EXC(SshConnectionFault);
    }
    return channel;
}

}  // namespace korva::libssh2pp
