// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>

namespace korva::agent_check {

/// Who sends the agent and fetches what it makes: this user, or where root runs the agent, as sudo would,
/// the account "nobody".
class Login {
  public:
    Login();

    bool isRoot() const { return isRoot_; }
    /// Makes the account the owner of what it would have sent; throws SystemError.
    void own(const std::string& path) const;
    /// Whether the account may read the file `relative` of `directory` through the directories in between.
    bool mayRead(const std::string& directory, const std::string& relative) const;

  private:
    bool has(const std::string& path, int access) const;

    bool isRoot_;
    uid_t user_;
    gid_t group_;
};

}  // namespace korva::agent_check
