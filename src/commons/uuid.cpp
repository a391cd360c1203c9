// SPDX-License-Identifier: Apache-2.0
#include "commons/uuid.h"

#include <cstdlib>

namespace korva {

std::string newUUID() {
    constexpr char kDigits[] = "0123456789abcdef";
    constexpr char kPattern[] = "xxxxxxxx-xxxx-4xxx-8xxx-xxxxxxxxxxxx";
    std::string uuid(kPattern, sizeof(kPattern));  // with the NUL
    for (char& c : uuid) {
        if (c == 'x') {
            c = kDigits[std::rand() & 0xf];
        }
    }
    return uuid;
}

}  // namespace korva
