// SPDX-License-Identifier: Apache-2.0
#include "commons/product_paths.h"

#include "support/child_process.h"
#include "support/files.h"
#include "support/host_conf_redirect.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>

namespace korva {
namespace {

using test::redirectHostConf;
using test::statusOfChild;

void useConfiguration(const std::string& content) {
    const test::TempDir directory;
    test::writeFile(directory / "ovn.conf", content);
    redirectHostConf(directory / "ovn.conf");
    files::getTmpDir();
}

TEST(ProductPaths, LieBelowTheBuiltInRootWithoutAConfiguration) {
    EXPECT_EQ("/usr/local/ovn/DVX/log4cpp.properties", files::getDvxLogConfigFileName());
    EXPECT_EQ("/usr/local/ovn/DVX/scout.pl", files::getScoutFileName());
    EXPECT_EQ("/usr/local/ovn/DVX/tmp", files::getTmpDir());
    EXPECT_EQ("/usr/local/ovn/DVX/agents", files::agents::getDir());
    EXPECT_EQ("/usr/local/ovn/admin/sbin/libxml-proxy", files::getLibxmlProxyFileName());
}

TEST(ProductPaths, LieBelowTheConfiguredRoot) {
    EXPECT_EQ(0, statusOfChild([] {
                  useConfiguration("PRODUCT_ROOT_D /opt/p\n");
                  EXPECT_EQ("/opt/p/DVX/log4cpp.properties", files::getDvxLogConfigFileName());
                  EXPECT_EQ("/opt/p/DVX/scout.pl", files::getScoutFileName());
                  EXPECT_EQ("/opt/p/DVX/tmp", files::getTmpDir());
                  EXPECT_EQ("/opt/p/DVX/agents", files::agents::getDir());
                  EXPECT_EQ("/opt/p/admin/sbin/libxml-proxy", files::getLibxmlProxyFileName());
              }));
}

TEST(ProductPaths, LieBelowTheConfiguredRootWithACommentBehindIt) {
    EXPECT_EQ(0, statusOfChild([] {
                  useConfiguration("PRODUCT_ROOT_D /opt/p # root\n");
                  EXPECT_EQ("/opt/p/DVX/scout.pl", files::getScoutFileName());
              }));
}

TEST(ProductPaths, KeepTwoBlanksBehindTheConfiguredRoot) {
    EXPECT_EQ(0, statusOfChild([] {
                  useConfiguration("PRODUCT_ROOT_D /opt/p  \n");
                  EXPECT_EQ("/opt/p  /DVX/scout.pl", files::getScoutFileName());
              }));
}

TEST(ProductPaths, NameTheRemoteStatusFileWithoutADirectory) {
    EXPECT_EQ("dumping-status.xml", files::getRemoteDumpingStatusFileName());
}

}  // namespace
}  // namespace korva
