// SPDX-License-Identifier: Apache-2.0
#include "agent_check/status_watch.h"

#include "agent_check/documents.h"
#include "commons/product_paths.h"
#include "commons/system_error.h"

#include <fcntl.h>
#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace korva::agent_check {
namespace {

constexpr std::size_t kEventsAtOnce = 64;
constexpr std::uint32_t kComes = IN_CREATE | IN_MOVED_TO;
constexpr std::uint32_t kGoes = IN_DELETE | IN_MOVED_FROM;
constexpr const char* kDescriptors = "/proc/self/fd";

std::string faultOfStatus(const std::string& path) {
    if (!std::filesystem::is_regular_file(path)) {
        return "it is no regular file";
    }
    std::ifstream file(path, std::ios::binary);
    return faultOfText({std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()});
}

}  // namespace

StatusWatch::StatusWatch(std::string directory, const Login& login)
    : directory_(std::move(directory)), login_(login), inotify_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    if (inotify_add_watch(inotify_.fd(), directory_.c_str(), kComes | kGoes | IN_MODIFY | IN_CLOSE_WRITE) <
        0) {
        throwSystemError("Cannot watch " + directory_, errno);
    }
}

void StatusWatch::begin() {
    read();  // what happened before
    found_ = {};
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
            note(event.mask);
        }
    }
}

void StatusWatch::note(std::uint32_t mask) {
    if ((mask & kGoes) != 0) {
        found_.isGone = found_.hasCome;  // one that an earlier dump has left may go
        found_.wasCreated = false;
        return;
    }
    if ((mask & kComes) != 0) {
        found_.wasMissing = found_.wasMissing || found_.isGone;
        found_.isGone = false;
        found_.hasCome = true;
        found_.wasCreated = (mask & IN_CREATE) != 0;
        look();
    } else if ((mask & IN_MODIFY) != 0 || found_.wasCreated) {
        // A link is not open; what is, was empty at first even where nothing was written.
        found_.wasWrittenInPlace = true;
        found_.fault.clear();
    }
    found_.wasSeen = true;
}

// The name may lead to another file at the next moment, or to none.
void StatusWatch::look() {
    const Descriptor file(
        open((directory_ + "/" + files::getRemoteDumpingStatusFileName()).c_str(), O_PATH | O_CLOEXEC));
    if (file.fd() < 0) {
        return;
    }
    found_.wasSeen = true;
    const std::string number = std::to_string(file.fd());
    if (!login_.mayRead(kDescriptors, number)) {
        found_.wasUnreadable = true;
    } else if (!found_.wasWrittenInPlace && found_.fault.empty()) {
        found_.fault = faultOfStatus(std::string(kDescriptors).append("/").append(number));
    }
}

}  // namespace korva::agent_check
