// SPDX-License-Identifier: Apache-2.0
#include "agent_check/login.h"

#include "commons/system_error.h"
#include "utils/accounts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace korva::agent_check {
namespace {

constexpr uid_t kNobody = 65534;

}  // namespace

Login::Login() : isRoot_(geteuid() == 0), user_(geteuid()), group_(getegid()) {
    if (isRoot_) {
        user_ = korva_ugid("nobody", &group_);
        if (user_ == 0) {
            user_ = kNobody;
            group_ = kNobody;
        }
    }
}

void Login::own(const std::string& path) const {
    if (isRoot_ && lchown(path.c_str(), user_, group_) != 0) {
        throwSystemError(path, errno);
    }
}

bool Login::has(const std::string& path, int access) const {
    if (!isRoot_) {
        return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) == 0;
    }
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return false;
    }
    constexpr unsigned kBitsOfOne = 3;
    unsigned shift = 0;
    if (status.st_uid == user_) {
        shift = 2 * kBitsOfOne;
    } else if (status.st_gid == group_) {
        shift = kBitsOfOne;
    }
    return ((status.st_mode >> shift) & static_cast<unsigned>(access)) != 0;
}

bool Login::mayRead(const std::string& directory, const std::string& relative) const {
    std::filesystem::path reached = directory;
    for (const auto& name : std::filesystem::path(relative).parent_path()) {
        reached /= name.relative_path();
        if (!has(reached, X_OK)) {
            return false;
        }
    }
    return has(directory + "/" + relative, R_OK);
}

}  // namespace korva::agent_check
