// SPDX-License-Identifier: Apache-2.0
#include "ssh/io_channels.h"

#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <sstream>
#include <string>

namespace korva {
namespace {

std::string readOnce(IOReadChannel& channel, unsigned size) {
    std::array<char, 16> buffer{};
    const int got = channel.read(buffer.data(), size);
    EXPECT_GE(got, 0);
    return {buffer.data(), static_cast<std::size_t>(got)};
}

TEST(IOStreamReadChannel, ReadsUpToTheSizeAskedForAndThenTheRest) {
    std::istringstream stream(
        std::string("abc\0\xff"
                    "f",
                    6));
    IOStreamReadChannel channel(stream);
    EXPECT_EQ("abc", readOnce(channel, 3));
    EXPECT_EQ(std::string("\0\xff"
                          "f",
                          3),
              readOnce(channel, 16));
    EXPECT_EQ("", readOnce(channel, 16));
    EXPECT_EQ("", readOnce(channel, 16));
}

TEST(IOStreamReadChannel, EndsAfterAFullReadToTheVeryEnd) {
    std::istringstream stream("abcd");
    IOStreamReadChannel channel(stream);
    EXPECT_EQ("abcd", readOnce(channel, 4));
    EXPECT_EQ("", readOnce(channel, 4));
}

TEST(IOStreamReadChannel, IsEmptyForAStreamAtItsEnd) {
    std::istringstream stream;
    stream.setstate(std::ios::eofbit);
    IOStreamReadChannel channel(stream);
    EXPECT_EQ("", readOnce(channel, 16));
}

TEST(IOStreamReadChannel, IsEmptyForAFileThatCouldNotBeOpened) {
    std::ifstream file("/nowhere/at/all");
    IOStreamReadChannel channel(file);
    EXPECT_EQ("", readOnce(channel, 16));
}

TEST(IOStreamReadChannel, LeavesItToTheStreamThatTheFileCannotBeRead) {
    std::ifstream directory("/");
    IOStreamReadChannel channel(directory);
    EXPECT_EQ("", readOnce(channel, 16));
    EXPECT_TRUE(directory.bad());
}

TEST(IOStreamWriteChannel, TakesAllBytes) {
    std::ostringstream stream;
    IOStreamWriteChannel channel(stream);
    EXPECT_EQ(3, channel.write("ab\0cd", 3));
    EXPECT_EQ(std::string("ab\0", 3), stream.str());
}

TEST(IOStreamWriteChannel, FailsWithAStreamThatFails) {
    std::ofstream file("/nowhere/at/all");
    IOStreamWriteChannel unopened(file);
    EXPECT_EQ(-1, unopened.write("a", 1));

    std::ostringstream bad;
    bad.setstate(std::ios::badbit);
    IOStreamWriteChannel broken(bad);
    EXPECT_EQ(-1, broken.write("a", 1));
}

}  // namespace
}  // namespace korva
