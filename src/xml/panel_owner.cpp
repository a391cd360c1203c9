// SPDX-License-Identifier: Apache-2.0
#include "xml/panel_owner.h"

#include "utils/accounts.h"
#include "xml/xml_errors.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace korva {
namespace {

constexpr const char* kSourceName = "./xml_wrap";

// What getpwnam(3) leaves in errno for an account that does not exist depends on the name service; its texts
// ("No such file or directory", "No such process") would send the reader after the wrong thing.
std::string lookupFailure(int error) {
    if (error == 0 || error == ENOENT || error == ESRCH) {
        return std::string("There is no account ") + kPanelAccount;
    }
    return std::strerror(error);
}

}  // namespace

void giveToPanel(const std::string& path) {
    errno = 0;
    // Not korva_ugid(): it gives the ids of root for an account that does not exist.
    const passwd* account = ::getpwnam(kPanelAccount);
    if (account == nullptr) {
        throw KORVA_EXC(CantTakeFileOwnership) % path % lookupFailure(errno);
    }
    if (::lchown(path.c_str(), account->pw_uid, account->pw_gid) != 0) {
        throw KORVA_EXC(CantTakeFileOwnership) % path % std::strerror(errno);
    }
}

}  // namespace korva
