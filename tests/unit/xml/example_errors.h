// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <string>

namespace korva::test {

KORVA_ERROR_TAG(ExampleOuter, "Error during %1%")
KORVA_ERROR_TAG(ExampleInner, "Cannot read %1%: %2%")

inline Exc<&ExampleInner> innerError() {
    return Exc<&ExampleInner>("void reader()", "./reader", 12) % "dump.xml" % "No such file or directory";
}

inline Exc<&ExampleOuter> outerError() {
    return Exc<&ExampleOuter>("void action()", "./actions", 34, innerError()) % "dump retrieval";
}

}  // namespace korva::test
