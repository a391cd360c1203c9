// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace korva::test {

/// Lets the program under test find `path` where it opens /etc/ovn/ovn.conf; an empty path (as at the start)
/// stands for a file that does not exist. For programs linked with korva_host_conf_redirect.
void redirectHostConf(const std::string& path);

}  // namespace korva::test
