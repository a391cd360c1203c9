// SPDX-License-Identifier: Apache-2.0
#include "ssh/remote_log.h"

#include "ssh/ssh-transfer.h"
#include "support/captured_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cpp/Category.hh>

#include <string>

namespace korva {
namespace {

using test::CapturedLog;
using test::debugRecord;
using testing::ElementsAre;

std::string everyByte() {
    std::string bytes;
    for (int byte = 0; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

TEST(MemchunkLog, WritesEachByteAsItIs) {
    CapturedLog log;
    const std::string bytes = everyByte();
    log4cpp::Category::getInstance("any").debugStream()
        << "<" << memchunk_log{bytes.data(), static_cast<int>(bytes.size())} << ">";
    EXPECT_THAT(log.records(), ElementsAre(debugRecord("any", "<" + bytes + ">")));
}

TEST(MemchunkLog, WritesNothingForNoBytes) {
    CapturedLog log;
    log4cpp::Category::getInstance("any").debugStream() << "<" << memchunk_log{nullptr, 0} << ">";
    EXPECT_THAT(log.records(), ElementsAre(debugRecord("any", "<>")));
}

TEST(LogPump, LogsStandardInputRaw) {
    CapturedLog log;
    const std::string bytes = everyByte();
    Ssh::logPump(bytes.data(), static_cast<int>(bytes.size()));
    EXPECT_THAT(log.records(), ElementsAre(debugRecord("k.Ssh", "remote stdin <- " + bytes)));
}

}  // namespace
}  // namespace korva
