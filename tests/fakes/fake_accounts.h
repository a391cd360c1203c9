// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

namespace korva::test {

/// Accounts for programs linked with fake_accounts.cpp: there getpwnam(3) knows the panel's account "ovnadm"
/// while an object of this class lives, and no account otherwise.
class FakePanelAccount {
  public:
    FakePanelAccount(uid_t uid, gid_t gid);
    FakePanelAccount(const FakePanelAccount&) = delete;
    FakePanelAccount& operator=(const FakePanelAccount&) = delete;
    ~FakePanelAccount();
};

/// While it lives, getpwnam(3) fails with this errno value.
class FailingAccountLookup {
  public:
    explicit FailingAccountLookup(int error);
    FailingAccountLookup(const FailingAccountLookup&) = delete;
    FailingAccountLookup& operator=(const FailingAccountLookup&) = delete;
    ~FailingAccountLookup();
};

}  // namespace korva::test
