// SPDX-License-Identifier: Apache-2.0
#include "ssh/pump.h"

#include "commons/termination.h"
#include "support/child_process.h"
#include "unit/ssh/ssh_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <sstream>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::debugRecord;
using test::kPassword;
using test::SshOverFake;
using test::statusOfChild;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Le;

/// Gives the results that it is made of.
class ScriptedSource : public IOReadChannel {
  public:
    explicit ScriptedSource(std::deque<std::string> chunks, int result = 0)
        : chunks_(std::move(chunks)), result_(result) {}
    int read(char* buffer, unsigned size) override {
        sizes.push_back(size);
        if (chunks_.empty()) {
            return result_;
        }
        const std::string chunk = chunks_.front();
        chunks_.pop_front();
        std::copy(chunk.begin(), chunk.end(), buffer);
        return static_cast<int>(chunk.size());
    }

    std::vector<unsigned> sizes;

  private:
    std::deque<std::string> chunks_;
    int result_;
};

/// Takes at most so many bytes at each write, then all; a negative number is returned as it is.
class ScriptedSink : public IOWriteChannel {
  public:
    explicit ScriptedSink(std::deque<int> results = {}) : results_(std::move(results)) {}
    int write(const char* buffer, unsigned size) override {
        sizes.push_back(size);
        int result = static_cast<int>(size);
        if (!results_.empty()) {
            result = std::min(result, results_.front());
            results_.pop_front();
        }
        if (result > 0) {
            taken.append(buffer, static_cast<std::size_t>(result));
        }
        return result;
    }

    std::string taken;
    std::vector<unsigned> sizes;

  private:
    std::deque<int> results_;
};

std::string someBytes(std::size_t size) {
    std::string bytes(size, '\0');
    unsigned next = 1;
    for (char& byte : bytes) {
        next = next * 1103515245U + 12345U;
        byte = static_cast<char>(next >> 16);
    }
    return bytes;
}

TEST(Pump, CopiesEverySizeAroundTheBuffers) {
    for (const std::size_t size :
         {0UL, 1UL, 65399UL, 65400UL, 65401UL, 65535UL, 65536UL, 65537UL, 3000000UL}) {
        const std::string bytes = someBytes(size);
        std::istringstream in(bytes);
        IOStreamReadChannel source(in);
        ScriptedSink sink;
        pump(source, sink);
        EXPECT_EQ(bytes, sink.taken) << size;
        EXPECT_THAT(sink.sizes, Each(Le(65536U))) << size;
    }
}

TEST(Pump, EndsAtTheFirstEmptyRead) {
    ScriptedSource source({"a", "bc", "", "never"});
    ScriptedSink sink;
    pump(source, sink);
    EXPECT_EQ("abc", sink.taken);
    EXPECT_EQ(3U, source.sizes.size());
}

TEST(Pump, TellsASourceThatFails) {
    ScriptedSource source({"abc"}, -1);
    ScriptedSink sink;
    try {
        pump(source, sink);
        FAIL() << "no error";
    } catch (const Exc<&StreamRead>& error) {
        EXPECT_STREQ("Cannot read data from the stream", error.what());
    }
    EXPECT_EQ("abc", sink.taken);
}

TEST(Pump, TellsASinkThatFails) {
    ScriptedSource source({"abc"});
    ScriptedSink sink({-1});
    EXPECT_THROW(pump(source, sink), Exc<&StreamWrite>);
}

TEST(PumpWrite, GoesOnAfterShortWritesWithWhatIsLeft) {
    ScriptedSink sink({1, 3, 2});
    pump_write(sink, "abcdefgh", 8);
    EXPECT_EQ("abcdefgh", sink.taken);
    EXPECT_THAT(sink.sizes, ElementsAre(8U, 7U, 4U, 2U));
}

TEST(PumpWrite, WritesNothingForNoBytes) {
    ScriptedSink sink;
    pump_write(sink, nullptr, 0);
    pump_write(sink, nullptr, -1);
    EXPECT_THAT(sink.sizes, IsEmpty());
}

TEST(PumpWrite, TakesEveryNegativeResultForAFailureInsteadOfMovingBackwards) {
    for (const int result : {-1, -7, LIBSSH2_ERROR_EAGAIN, -39, -43}) {
        ScriptedSink sink({2, result});
        try {
            pump_write(sink, "abc", 3);
            FAIL() << "no error for " << result;
        } catch (const Exc<&StreamWrite>& error) {
            EXPECT_STREQ("Cannot write data to the stream", error.what());
        }
        EXPECT_EQ("ab", sink.taken);
    }
}

TEST(PumpWrite, WritesNothingMoreOnceTheRunWasAskedToEnd) {
    EXPECT_EQ(0, statusOfChild([] {
                  terminateProgram();
                  ScriptedSink sink;
                  EXPECT_THROW(pump_write(sink, "abc", 3), MigrationTerminatedException);
                  EXPECT_THROW(pump_write(sink, "", 0), MigrationTerminatedException);
                  EXPECT_THAT(sink.sizes, IsEmpty());
              }));
}

TEST(Pump, EndsBetweenTwoChunksWhenTheRunIsAskedToEnd) {
    EXPECT_EQ(0, statusOfChild([] {
                  struct EndingSource : IOReadChannel {
                      int read(char* buffer, unsigned /*size*/) override {
                          if (++reads == 3) {
                              terminateProgram();
                          }
                          *buffer = 'x';
                          return 1;
                      }
                      int reads = 0;
                  } source;
                  ScriptedSink sink;
                  EXPECT_THROW(pump(source, sink), MigrationTerminatedException);
                  EXPECT_EQ("xx", sink.taken);
              }));
}

using PumpWithLog = SshOverFake;

TEST_F(PumpWithLog, LogsEachChunkOnceItIsWritten) {
    connect();
    ScriptedSource source({std::string("a\0\x80", 3), "second"});
    ScriptedSink sink;
    pump_with_log(source, sink, ssh());
    EXPECT_EQ(std::string("a\0\x80second", 9), sink.taken);
    EXPECT_THAT(log().records(), ElementsAre(debugRecord("k.Ssh", std::string("remote stdin <- a\0\x80", 19)),
                                             debugRecord("k.Ssh", "remote stdin <- second")));
}

TEST_F(PumpWithLog, LogsNothingForAnEmptyInput) {
    connect();
    ScriptedSource source({});
    ScriptedSink sink;
    pump_with_log(source, sink, ssh());
    EXPECT_THAT(log().records(), IsEmpty());
}

TEST_F(PumpWithLog, LogsNoChunkThatWasNotWritten) {
    connect();
    ScriptedSource source({"written", "not written"});
    ScriptedSink sink({7, -1});
    EXPECT_THROW(pump_with_log(source, sink, ssh()), Exc<&StreamWrite>);
    EXPECT_THAT(log().records(), ElementsAre(debugRecord("k.Ssh", "remote stdin <- written")));
}

TEST_F(PumpWithLog, SendsPasswordsButNeverLogsThem) {
    connect();
    ssh().addSecret("sudo word");
    ScriptedSource source({"sudo wo", "rd\nthen ", kPassword, " and more"});
    ScriptedSink sink;
    pump_with_log(source, sink, ssh());
    EXPECT_EQ(std::string("sudo word\nthen ") + kPassword + " and more", sink.taken);
    EXPECT_EQ("remote stdin <- ********\nthen \nremote stdin <- ********\nremote stdin <-  and more\n",
              log().text());
}

TEST_F(PumpWithLog, HandsAtMost65536BytesToTheLogEvenWhereMarksAreLongerThanSecrets) {
    connect();
    ssh().addSecret("x");
    std::string input;
    while (input.size() < 65400) {
        input += "x-";
    }
    ScriptedSource source({input});
    ScriptedSink sink;
    pump_with_log(source, sink, ssh());
    std::size_t logged = 0;
    for (const test::LogRecord& record : log().records()) {
        EXPECT_LE(record.message.size(), std::string("remote stdin <- ").size() + 65536);
        logged += record.message.size() - std::string("remote stdin <- ").size();
    }
    EXPECT_EQ(input.size() / 2 * std::string("********-").size(), logged);
}

}  // namespace
}  // namespace korva
