// SPDX-License-Identifier: Apache-2.0
#include "agent_check/status_watch.h"

#include "agent_check/documents.h"
#include "commons/product_paths.h"
#include "commons/system_error.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

namespace korva::agent_check {
namespace {

constexpr std::size_t kEventsAtOnce = 64;

}  // namespace

StatusWatch::StatusWatch(std::string directory, const Login& login)
    : directory_(std::move(directory)), login_(login), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (inotify_add_watch(inotify_.fd(), directory_.c_str(), IN_MODIFY | IN_MOVED_TO) < 0) {
        throwSystemError("Cannot watch " + directory_, errno);
    }
}

void StatusWatch::read() {
    alignas(inotify_event) std::array<char, kEventsAtOnce*(sizeof(inotify_event) + NAME_MAX + 1)> buffer{};
    for (;;) {
        const ssize_t size = ::read(inotify_.fd(), buffer.data(), buffer.size());
        if (size <= 0) {
            return;
        }
        for (std::size_t at = 0; at < static_cast<std::size_t>(size);) {
            inotify_event event{};
            std::memcpy(&event, &buffer[at], sizeof event);
            const std::string name(event.len == 0 ? "" : &buffer[at + sizeof event]);
            at += sizeof event + event.len;
            if (name != files::getRemoteDumpingStatusFileName()) {
                continue;
            }
            wasSeen_ = true;
            if ((event.mask & IN_MODIFY) != 0) {
                wasWrittenInPlace_ = true;
            } else {
                look();
            }
        }
    }
}

void StatusWatch::look() {
    const std::string name = files::getRemoteDumpingStatusFileName();
    struct stat status {};
    if (stat((directory_ + "/" + name).c_str(), &status) != 0) {
        return;  // there may be none
    }
    wasSeen_ = true;
    if (!login_.mayRead(directory_, name)) {
        wasUnreadable_ = true;
    } else if (!wasWrittenInPlace_ && fault_.empty()) {
        fault_ = faultOfFile(directory_ + "/" + name);
    }
}

}  // namespace korva::agent_check
