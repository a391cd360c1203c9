// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_accounts.h"

#include <pwd.h>

#include <cerrno>
#include <string_view>

namespace {

bool accountExists = false;
int lookupError = 0;
char name[] = "ovnadm";
char nothing[] = "";
passwd account{name, nothing, 0, 0, nothing, nothing, nothing};

}  // namespace

// Stands in for the C library's: the linker takes the symbol of the program first.
extern "C" passwd* getpwnam(const char* user) {
    if (lookupError != 0) {
        errno = lookupError;
        return nullptr;
    }
    return accountExists && std::string_view(user) == name ? &account : nullptr;
}

namespace korva::test {

FakePanelAccount::FakePanelAccount(uid_t uid, gid_t gid) {
    account.pw_uid = uid;
    account.pw_gid = gid;
    accountExists = true;
}

FakePanelAccount::~FakePanelAccount() {
    accountExists = false;
}

FailingAccountLookup::FailingAccountLookup(int error) {
    lookupError = error;
}

FailingAccountLookup::~FailingAccountLookup() {
    lookupError = 0;
}

}  // namespace korva::test
