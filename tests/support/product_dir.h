// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "support/files.h"
#include "support/host_conf_redirect.h"
#include "support/temp_dir.h"
#include "utils/ovn_conf.h"

#include <filesystem>
#include <string>

namespace korva::test {

/// The product's own directory of this process, below a root directory that is made for it.
inline const std::string& productDir() {
    static const TempDir root;
    static const std::string directory = [] {
        writeFile(root / "ovn.conf", "PRODUCT_ROOT_D " + root.path() + "\n");
        redirectHostConf(root / "ovn.conf");
        ovnConfLoad();
        std::filesystem::create_directory(root / "DVX");
        return root / "DVX";
    }();
    return directory;
}

}  // namespace korva::test
