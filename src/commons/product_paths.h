// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

/// Where the product keeps its files, below the root directory that the host configuration names.
namespace korva::files {

/// log4cpp's configuration.
std::string getDvxLogConfigFileName();

/// The script that the scout action sends to the source host.
std::string getScoutFileName();

/// The product's directory for temporary files.
std::string getTmpDir();

/// The helper that validates XML documents against a schema.
std::string getLibxmlProxyFileName();

/// The dumping status as agents name it: a bare name without a directory.
std::string getRemoteDumpingStatusFileName();

namespace agents {

/// The directory that holds a directory for each migration agent.
std::string getDir();

}  // namespace agents
}  // namespace korva::files
