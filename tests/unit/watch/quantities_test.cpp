// SPDX-License-Identifier: Apache-2.0
#include "watch/quantities.h"

#include "watch/progress.h"
#include "watch/rate_meter.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>

namespace korva {
namespace {

using std::chrono::seconds;

TEST(Quantities, BytesHaveTheUnitThatSuitsThem) {
    EXPECT_EQ(formatBytes(0), "0 B");
    EXPECT_EQ(formatBytes(1023), "1023 B");
    EXPECT_EQ(formatBytes(1024), "1.0 KiB");
    EXPECT_EQ(formatBytes(1536), "1.5 KiB");
    EXPECT_EQ(formatBytes(std::int64_t{340} << 20), "340 MiB");
    EXPECT_EQ(formatBytes(std::int64_t{4} << 30), "4.0 GiB");
    EXPECT_EQ(formatBytes(std::numeric_limits<std::int64_t>::max()), "7.9 EiB");
}

TEST(Quantities, PartAndTotalShareTheUnitOfTheTotal) {
    EXPECT_EQ(formatBytesOf(0, 0), "0 of 0 B");
    EXPECT_EQ(formatBytesOf(std::int64_t{1} << 29, std::int64_t{4} << 30), "0.5 of 4.0 GiB");
}

TEST(Quantities, WhatIsNotCompleteIsNotCalledComplete) {
    const std::int64_t total = std::int64_t{4} << 30;
    EXPECT_EQ(percentOf(total - 1, total), 99);
    EXPECT_EQ(percentOf(total, total), 100);
    EXPECT_EQ(formatBytesOf(total - 1, total), "3.9 of 4.0 GiB");
}

TEST(Quantities, OfNothingEverythingIsThere) {
    EXPECT_EQ(percentOf(0, 0), 100);
}

TEST(Quantities, DurationsHaveTwoUnitsAtMost) {
    EXPECT_EQ(formatDuration(seconds(-1)), "0 s");
    EXPECT_EQ(formatDuration(seconds(59)), "59 s");
    EXPECT_EQ(formatDuration(seconds(192)), "3 min 12 s");
    EXPECT_EQ(formatDuration(seconds(7500)), "2 h 5 min");
    EXPECT_EQ(formatDuration(seconds(349200)), "4 d 1 h");
}

TEST(Progress, WhatIsLeftIsNeverMoreThanThereIs) {
    EXPECT_EQ(shareOf(30, 10)->done, 0);
    EXPECT_EQ(shareOf(4, 10)->done, 6);
    EXPECT_FALSE(shareOf(std::nullopt, 10));
    EXPECT_FALSE(shareOf(4, std::nullopt));
}

TEST(Progress, TimeLeftComesFromTheRateOfNow) {
    TransferStatus transfer;
    transfer.sizeLeft = 1000;
    transfer.speed = 10;
    EXPECT_EQ(timeLeft(transfer, 100), seconds(10));
    EXPECT_EQ(timeLeft(transfer, std::nullopt), seconds(100));
}

TEST(Progress, TimeLeftIsUnknownWhileNothingComes) {
    TransferStatus transfer;
    transfer.sizeLeft = 1000;
    transfer.speed = 10;
    EXPECT_FALSE(timeLeft(transfer, 0));
    transfer.sizeLeft = std::numeric_limits<std::int64_t>::max();
    EXPECT_FALSE(timeLeft(transfer, 1));
    EXPECT_FALSE(timeLeft(TransferStatus(), 1));
}

TEST(Progress, TimeLeftIsRounded) {
    TransferStatus transfer;
    transfer.sizeLeft = 14;
    EXPECT_EQ(timeLeft(transfer, 10), seconds(1));
    EXPECT_EQ(timeLeft(transfer, 9), seconds(2));
    transfer.sizeLeft = 15;
    EXPECT_EQ(timeLeft(transfer, 10), seconds(2));
    transfer.sizeLeft = 0;
    EXPECT_EQ(timeLeft(transfer, 1), seconds(0));
}

TEST(Progress, TimeLeftIsKnownOfTheLargestNumbers) {
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    TransferStatus transfer;
    transfer.sizeLeft = kMost;
    EXPECT_EQ(timeLeft(transfer, kMost), seconds(1));
    EXPECT_EQ(timeLeft(transfer, kMost / 2), seconds(2));
}

class Rate : public testing::Test {
  protected:
    static RateMeter::Time at(int second) { return RateMeter::Time(seconds(1000 + second)); }

    RateMeter meter;
};

TEST_F(Rate, IsUnknownWithinTheFirstSecond) {
    meter.note(at(0), 1000);
    EXPECT_FALSE(meter.bytesPerSecond());
    meter.note(at(1), 900);
    EXPECT_EQ(meter.bytesPerSecond(), 100);
}

TEST_F(Rate, ForgetsWhatWasLongAgo) {
    meter.note(at(0), 1'000'000);
    meter.note(at(1), 0);
    for (int second = 2; second < 40; ++second) {
        meter.note(at(second), 0);
    }
    EXPECT_EQ(meter.bytesPerSecond(), 0);
}

TEST_F(Rate, IsKnownOfTheLargestNumbers) {
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    meter.note(at(0), kMost);
    meter.note(at(1), 0);
    EXPECT_EQ(meter.bytesPerSecond(), kMost);
}

TEST_F(Rate, BeginsAnewWithAnotherTransfer) {
    meter.note(at(0), 1000);
    meter.note(at(2), 500);
    meter.note(at(3), 2000);
    EXPECT_FALSE(meter.bytesPerSecond());
    meter.note(at(5), 1000);
    EXPECT_EQ(meter.bytesPerSecond(), 500);
    meter.note(at(6), std::nullopt);
    EXPECT_FALSE(meter.bytesPerSecond());
}

}  // namespace
}  // namespace korva
