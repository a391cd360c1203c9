// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace korva {

/// Configures log4cpp from the product's log4cpp.properties, once per process, with LOG_FILE_NAME set to the
/// session's log file. Without `verbose` the console appender "A2" is removed. Throws
/// log4cpp::ConfigureFailure, a std::runtime_error, when the file is missing or wrong.
void initializeLog4Cpp(bool verbose);

}  // namespace korva
