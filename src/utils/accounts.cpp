// SPDX-License-Identifier: Apache-2.0
#include "utils/accounts.h"

#include "utils/log_hook.h"
#include "utils/messlog.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace korva {
namespace {

/// The password entry in the C library's own buffer, or null with errno 0 when there is none.
const passwd* findAccount(const std::string& user) {
    errno = 0;
    return ::getpwnam(user.c_str());
}

}  // namespace

uid_t get_user_id(const std::string& user) {
    const passwd* account = findAccount(user);
    if (account == nullptr) {
        logUtility("Unable to find uid for user %s: %s", user, std::strerror(errno != 0 ? errno : ENOENT));
        return 0;
    }
    return account->pw_uid;
}

uid_t korva_ugid(const std::string& user, gid_t* gid) {
    const passwd* account = findAccount(user);
    if (gid != nullptr) {
        *gid = account != nullptr ? account->pw_gid : 0;
    }
    return account != nullptr ? account->pw_uid : 0;
}

int p_setuid(const std::string& user) {
    const passwd* account = findAccount(user);
    if (account == nullptr) {
        errno = errno != 0 ? errno : ENOENT;
        return -1;
    }
    const uid_t uid = account->pw_uid;
    const gid_t gid = account->pw_gid;
    if (::chdir(account->pw_dir) != 0) {
        return -1;
    }
    if (::initgroups(user.c_str(), gid) != 0) {
        messlog2(1, 1, "Unable to init new groups for user %s: %s", user.c_str(),
                 std::strerror(errno != 0 ? errno : ENOENT));
    }
    if (::setgid(gid) != 0) {
        messlog2(1, 1, "Failed to setgid: %d\n", errno);
    }
    if (::setuid(uid) != 0) {
        messlog2(1, 1, "Failed to setuid: %d\n", errno);
    }
    return 0;
}

}  // namespace korva
