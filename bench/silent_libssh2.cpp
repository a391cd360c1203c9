// SPDX-License-Identifier: Apache-2.0
// Stands in for libssh2 (link seam) where only our own instructions are to be counted: every call succeeds at
// once, and a command ends without output after one look at it.
#include <libssh2.h>

#include <cstddef>

namespace {

// What the pointers of the library lead to is never looked at.
char thePlace = 0;
void* theAbstract = nullptr;
int looks = 0;

}  // namespace

extern "C" {

LIBSSH2_SESSION* libssh2_session_init_ex(LIBSSH2_ALLOC_FUNC((*)), LIBSSH2_FREE_FUNC((*)),
                                         LIBSSH2_REALLOC_FUNC((*)), void*) {
    return reinterpret_cast<LIBSSH2_SESSION*>(&thePlace);
}

int libssh2_session_method_pref(LIBSSH2_SESSION*, int, const char*) {
    return 0;
}

void libssh2_session_set_timeout(LIBSSH2_SESSION*, long) {}

int libssh2_session_startup(LIBSSH2_SESSION*, int) {
    return 0;
}

int libssh2_session_last_error(LIBSSH2_SESSION*, char**, int*, int) {
    return 0;
}

const char* libssh2_session_methods(LIBSSH2_SESSION*, int) {
    return "aes128-ctr";
}

void** libssh2_session_abstract(LIBSSH2_SESSION*) {
    return &theAbstract;
}

int libssh2_session_free(LIBSSH2_SESSION*) {
    return 0;
}

char* libssh2_userauth_list(LIBSSH2_SESSION*, const char*, unsigned int) {
    static char methods[] = "password";
    return methods;
}

int libssh2_userauth_password_ex(LIBSSH2_SESSION*, const char*, unsigned int, const char*, unsigned int,
                                 LIBSSH2_PASSWD_CHANGEREQ_FUNC((*))) {
    return 0;
}

int libssh2_userauth_keyboard_interactive_ex(LIBSSH2_SESSION*, const char*, unsigned int,
                                             LIBSSH2_USERAUTH_KBDINT_RESPONSE_FUNC((*))) {
    return 0;
}

LIBSSH2_CHANNEL* libssh2_channel_open_ex(LIBSSH2_SESSION*, const char*, unsigned int, unsigned int,
                                         unsigned int, const char*, unsigned int) {
    looks = 0;
    return reinterpret_cast<LIBSSH2_CHANNEL*>(&thePlace);
}

void libssh2_channel_set_blocking(LIBSSH2_CHANNEL*, int) {}

int libssh2_channel_process_startup(LIBSSH2_CHANNEL*, const char*, unsigned int, const char*, unsigned int) {
    return 0;
}

ssize_t libssh2_channel_read_ex(LIBSSH2_CHANNEL*, int, char*, std::size_t) {
    return LIBSSH2_ERROR_EAGAIN;
}

int libssh2_channel_receive_window_adjust2(LIBSSH2_CHANNEL*, unsigned long, unsigned char, unsigned int*) {
    return 0;
}

ssize_t libssh2_channel_write_ex(LIBSSH2_CHANNEL*, int, const char*, std::size_t size) {
    return static_cast<ssize_t>(size);
}

int libssh2_channel_send_eof(LIBSSH2_CHANNEL*) {
    return 0;
}

int libssh2_channel_eof(LIBSSH2_CHANNEL*) {
    return looks++ > 0 ? 1 : 0;
}

int libssh2_poll(LIBSSH2_POLLFD*, unsigned int, long) {
    return 0;
}

int libssh2_poll_channel_read(LIBSSH2_CHANNEL*, int) {
    return 0;
}

int libssh2_channel_wait_closed(LIBSSH2_CHANNEL*) {
    return 0;
}

int libssh2_channel_get_exit_status(LIBSSH2_CHANNEL*) {
    return 0;
}

int libssh2_channel_get_exit_signal(LIBSSH2_CHANNEL*, char**, std::size_t*, char**, std::size_t*, char**,
                                    std::size_t*) {
    return 0;
}

int libssh2_channel_free(LIBSSH2_CHANNEL*) {
    return 0;
}
}
