// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <string>

namespace korva {

/// The account that the panel runs under, which is given the files that it is to read.
inline constexpr const char* kPanelAccount = "ovnadm";

/// The uid of a local account; 0, with a message, when there is none of that name.
uid_t get_user_id(const std::string& user);

/// The uid of a local account, and through `gid` its group when that is not null. Both are 0 when there is no
/// such account.
uid_t korva_ugid(const std::string& user, gid_t* gid);

/// Turns this process into one of the account: home directory, groups, identity. Returns -1 with errno set
/// when the account is unknown or its home directory cannot be entered. When the identity cannot be taken the
/// process ends with a message and status 1: it must not go on as somebody else.
int p_setuid(const std::string& user);

}  // namespace korva
