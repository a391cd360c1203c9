// SPDX-License-Identifier: Apache-2.0
#include "tallowick/option_errors.h"

#include <boost/format.hpp>

namespace korva {
namespace {

constexpr const char* kSourceName = "./driver";

}  // namespace

void req_action_argument_missed(const char* what) {
    throw KORVA_EXC(OptParsingError) %
        boost::str(boost::format("%s is required unless --help or -h requested\n") % what);
}

void invalid_option(const char* what) {
    throw KORVA_EXC(OptParsingError) %
        boost::str(boost::format("%1% is not allowed with --help or -h\n") % what);
}

void extra_option(const char* option, const char* action) {
    throw KORVA_EXC(OptParsingError) %
        boost::str(boost::format("'--%1%' only may be specified when '--%2%' is requested") % option %
                   action);
}

void no_action_option(const char* option, const char* action) {
    throw KORVA_EXC(OptParsingError) %
        boost::str(boost::format("'--%1%' is required when '--%2%' action is requested") % option % action);
}

}  // namespace korva
