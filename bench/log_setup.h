// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "environment.h"

#include <log4cpp/Category.hh>
#include <log4cpp/PropertyConfigurator.hh>

/// Configures the log as a run that is not verbose does it, by the product's own file, which the environment
/// names as LOG_PROPERTIES.
inline void configureLog() {
    log4cpp::PropertyConfigurator::configure(variable("LOG_PROPERTIES"));
    log4cpp::Category& root = log4cpp::Category::getRoot();
    root.removeAppender(root.getAppender("A2"));
}
