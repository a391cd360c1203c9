// SPDX-License-Identifier: Apache-2.0
#include "support/allocation_failure.h"
#include "support/child_process.h"
#include "support/files.h"
#include "support/host_conf_redirect.h"
#include "support/temp_dir.h"
#include "support/utility_log_capture.h"
#include "utils/ovn_conf.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <string>
#include <utility>

namespace korva {
namespace {

using test::AllocationFailure;
using test::redirectHostConf;
using test::statusOfChild;
using test::TempDir;
using test::UtilityLogCapture;
using test::writeFile;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kMissing =
    "unable to open configuration file /etc/ovn/ovn.conf: No such file or directory\n";

/// What is loaded stays for the life of a process, so each test has its own.
class OvnConfLookup : public testing::Test {
  protected:
    void define(const std::string& content) const {
        writeFile(directory / "ovn.conf", content);
        redirectHostConf(directory / "ovn.conf");
    }

    TempDir directory;
};

TEST_F(OvnConfLookup, GivesWhatTheFileDefines) {
    EXPECT_EQ(0, statusOfChild([this] {
                  const UtilityLogCapture log;
                  define("PRODUCT_ROOT_D /opt/p\nOWN_VARIABLE x\n");
                  EXPECT_STREQ("/opt/p", ovnConfGet("PRODUCT_ROOT_D"));
                  EXPECT_STREQ("x", ovnConfGet("OWN_VARIABLE"));
                  EXPECT_STREQ("/opt/p", ovnConfGetByIndex(28));
                  EXPECT_STREQ("/opt/p", ovnConfGetDefaultByIndex(28));
                  EXPECT_STREQ("/opt/p", ovnConfGetDefault("PRODUCT_ROOT_D"));
                  EXPECT_THAT(log.messages(), IsEmpty());
              }));
}

TEST_F(OvnConfLookup, GivesNullOrTheDefaultForWhatTheFileDoesNotDefine) {
    EXPECT_EQ(0, statusOfChild([this] {
                  const UtilityLogCapture log;
                  define("DUMP_D /dumps\n");
                  EXPECT_EQ(nullptr, ovnConfGet("PRODUCT_ROOT_D"));
                  EXPECT_EQ(nullptr, ovnConfGetByIndex(28));
                  EXPECT_STREQ("/usr/local/ovn", ovnConfGetDefaultByIndex(28));
                  EXPECT_STREQ("/usr/local/ovn", ovnConfGetDefault("PRODUCT_ROOT_D"));
                  EXPECT_THAT(log.messages(), IsEmpty());
              }));
}

TEST_F(OvnConfLookup, UsesTheDefaultForALineWithAnEqualsSign) {
    EXPECT_EQ(0, statusOfChild([this] {
                  define("PRODUCT_ROOT_D=/opt/p\n");
                  EXPECT_STREQ("/usr/local/ovn", ovnConfGetDefaultByIndex(28));
              }));
}

TEST_F(OvnConfLookup, UsesTheDefaultForANameWithoutAValue) {
    EXPECT_EQ(0, statusOfChild([this] {
                  define("PRODUCT_ROOT_D\n");
                  EXPECT_STREQ("/usr/local/ovn", ovnConfGetDefaultByIndex(28));
              }));
}

TEST_F(OvnConfLookup, TriesAgainAndLogsAgainWhileTheFileIsMissing) {
    EXPECT_EQ(0, statusOfChild([] {
                  const UtilityLogCapture log;
                  EXPECT_EQ(nullptr, ovnConfGet("PRODUCT_ROOT_D"));
                  EXPECT_EQ(-1, ovnConfLoad());
                  EXPECT_STREQ("/usr/local/ovn", ovnConfGetDefaultByIndex(28));
                  EXPECT_THAT(log.messages(), ElementsAre(kMissing, kMissing, kMissing));
              }));
}

TEST_F(OvnConfLookup, DoesNotRememberThatAValueWasMissing) {
    EXPECT_EQ(0, statusOfChild([this] {
                  EXPECT_EQ(nullptr, ovnConfGetByIndex(28));
                  define("PRODUCT_ROOT_D /opt/p\n");
                  EXPECT_STREQ("/opt/p", ovnConfGetByIndex(28));
              }));
}

TEST_F(OvnConfLookup, LoadsTheFileOnlyOnce) {
    EXPECT_EQ(0, statusOfChild([this] {
                  define("PRODUCT_ROOT_D /first\n");
                  EXPECT_EQ(0, ovnConfLoad());
                  const char* before = ovnConfGetByIndex(28);
                  define("PRODUCT_ROOT_D /second\nDUMP_D /d\n");
                  EXPECT_EQ(0, ovnConfLoad());
                  EXPECT_EQ(before, ovnConfGetByIndex(28));
                  EXPECT_STREQ("/first", ovnConfGet("PRODUCT_ROOT_D"));
                  EXPECT_EQ(nullptr, ovnConfGet("DUMP_D"));
              }));
}

TEST_F(OvnConfLookup, LogsANameThatIsNotInTheTable) {
    EXPECT_EQ(0, statusOfChild([this] {
                  define("OWN_VARIABLE x\n");
                  const UtilityLogCapture log;
                  EXPECT_EQ(nullptr, ovnConfGetDefault("OWN_VARIABLE"));
                  EXPECT_EQ(nullptr, ovnConfGetDefault("_MAX_POSSIBLE_OVN_CONF_VAR_NAME"));
                  EXPECT_THAT(
                      log.messages(),
                      ElementsAre("variable 'OWN_VARIABLE' isn't found neither in /etc/ovn/ovn.conf nor in "
                                  "compile-time defaults\n",
                                  "variable '_MAX_POSSIBLE_OVN_CONF_VAR_NAME' isn't found neither in "
                                  "/etc/ovn/ovn.conf nor in compile-time defaults\n"));
              }));
}

TEST_F(OvnConfLookup, FailsWhenMemoryRunsOut) {
    EXPECT_EQ(0, statusOfChild([this] {
                  define("PRODUCT_ROOT_D /opt/p\n");
                  const UtilityLogCapture log;
                  {
                      const AllocationFailure failure(sizeof(conf_data));
                      EXPECT_EQ(-1, ovnConfLoad());
                      EXPECT_EQ(ENOMEM, errno);
                  }
                  EXPECT_THAT(
                      log.messages(),
                      ElementsAre("Not enough memory to allocate Korva runtime configuration structure\n"));
                  EXPECT_STREQ("/opt/p", ovnConfGet("PRODUCT_ROOT_D"));
              }));
}

TEST_F(OvnConfLookup, KnowsNothingBeyondItsTable) {
    EXPECT_EQ(0, statusOfChild([this] {
                  define("PRODUCT_ROOT_D /opt/p\n");
                  for (const int index : {-1, 32, 1000000}) {
                      EXPECT_EQ(nullptr, ovnConfGetByIndex(index));
                      EXPECT_EQ(nullptr, ovnConfGetDefaultByIndex(index));
                  }
              }));
}

TEST_F(OvnConfLookup, HasADefaultForEachIndex) {
    const std::map<int, std::pair<std::string, std::string>> expected{
        {0, {"_MIN_POSSIBLE_OVN_CONF_VAR_NAME", "_MIN_POSSIBLE_OVN_CONF_VAR_VALUE"}},
        {1, {"KORVA_MAILNAMES_D", "/var/qmail/mailnames"}},
        {2, {"COURIER_IMAP_ROOT_D", "/"}},
        {3, {"RBLSMTPD", "/usr/sbin/rblsmtpd"}},
        {4, {"CLIENT_PHP_BIN", "/usr/local/ovn/bin/php-cli"}},
        {5, {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"}},
        {6, {"LIB_SSL_PATH", "/lib/libssl.so"}},
        {7, {"AWSTATS_DOC_D", "/usr/share/apache2/icons/awstats"}},
        {8, {"AWSTATS_TOOLS_D", "/usr/share/awstats"}},
        {9, {"AWSTATS_BIN_D", "/srv/www/cgi-bin/awstats"}},
        {10, {"AWSTATS_ETC_D", "/etc/awstats"}},
        {11, {"CATALINA_HOME", "/usr/share/tomcat6"}},
        {12, {"MAILMAN_VAR_D", "/var/lib/mailman"}},
        {13, {"MAILMAN_ROOT_D", "/usr/lib/mailman"}},
        {14, {"PGSQL_DATA_D", "/var/lib/pgsql/data"}},
        {15, {"PGSQL_BIN_D", "/usr/bin"}},
        {16, {"MYSQL_BIN_D", "/usr/bin"}},
        {17, {"MYSQL_VAR_D", "/var/lib/mysql"}},
        {18, {"WEB_STAT", "/usr/bin/webalizer"}},
        {19, {"DUMP_D", "/var/lib/ovn/dumps"}},
        {20, {"DUMP_TMP_D", "/tmp"}},
        {21, {"NAMED_RUN_ROOT_D", "/var/lib/named"}},
        {22, {"FTPD_CONF_INC", "/etc/proftpd.include"}},
        {23, {"HTTPD_SERVICE", "apache2"}},
        {24, {"HTTPD_LOG_D", "/var/log/apache2"}},
        {25, {"HTTPD_INCLUDE_D", "/etc/apache2/conf.d"}},
        {26, {"HTTPD_CONF_D", "/etc/apache2"}},
        {27, {"HTTPD_VHOSTS_D", "/srv/www/vhosts"}},
        {28, {"PRODUCT_ROOT_D", "/usr/local/ovn"}},
        {29, {"NAMED_OPTIONS_CONF", "/etc/named.conf.include.korva-options"}},
        {30, {"NAMED_ZONES_CONF", "/etc/named.conf.include.korva-zones"}},
    };
    for (const auto& [index, variable] : expected) {
        EXPECT_STREQ(variable.second.c_str(), ovnConfGetDefaultByIndex(index));
        EXPECT_STREQ(variable.second.c_str(), ovnConfGetDefault(variable.first.c_str()));
    }
    EXPECT_STREQ("_MAX_POSSIBLE_OVN_CONF_VAR_VALUE", ovnConfGetDefaultByIndex(31));
}

}  // namespace
}  // namespace korva
