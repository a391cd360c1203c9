// SPDX-License-Identifier: Apache-2.0
#include "commons/product_paths.h"

#include "utils/ovn_conf.h"

namespace korva::files {
namespace {

std::string getRootDir() {
    return ovnConfGetDefaultByIndex(kProductRootDirIndex);
}

std::string getDvxDir() {
    return getRootDir() + "/DVX";
}

}  // namespace

std::string getDvxLogConfigFileName() {
    return getDvxDir() + "/log4cpp.properties";
}

std::string getScoutFileName() {
    return getDvxDir() + "/scout.pl";
}

std::string getTmpDir() {
    return getDvxDir() + "/tmp";
}

std::string agents::getDir() {
    return getDvxDir() + "/agents";
}

std::string getLibxmlProxyFileName() {
    return getRootDir() + "/admin/sbin/libxml-proxy";
}

std::string getRemoteDumpingStatusFileName() {
    return "dumping-status.xml";
}

}  // namespace korva::files
