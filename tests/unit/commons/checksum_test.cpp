// SPDX-License-Identifier: Apache-2.0
#include "commons/checksum.h"

#include "commons/stream_errors.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fstream>
#include <ios>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace korva {
namespace {

constexpr const char* kEmptySum = "d41d8cd98f00b204e9800998ecf8427e";
constexpr const char* kAbcSum = "900150983cd24fb0d6963f7d28e17f72";

TEST(CountMd5Sum, OfAnEmptyStreamIsThatOfNoBytes) {
    std::istringstream stream("");
    EXPECT_EQ(kEmptySum, countMd5Sum(stream));
    EXPECT_EQ(kEmptySum, countMd5Sum(stream)) << "at its end already";
}

TEST(CountMd5Sum, HasLowerCaseHexDigitsWithLeadingZeros) {
    EXPECT_EQ(kAbcSum, countMd5Sum("abc"));
    EXPECT_EQ("0cc175b9c0f1b6a831c399e269772661", countMd5Sum("a"));
}

TEST(CountMd5Sum, TakesWhatIsLeftInTheStream) {
    std::istringstream stream("xyzabc");
    stream.ignore(3);
    EXPECT_EQ(kAbcSum, countMd5Sum(stream));
}

TEST(CountMd5Sum, IsTheSameForStreamsAndStringsAroundTheBlockSize) {
    for (const std::size_t size : {4095U, 4096U, 4097U, 8192U, 100000U}) {
        std::string data(size, 'x');
        data[size / 2] = '\0';
        std::istringstream stream(data);
        EXPECT_EQ(countMd5Sum(data), countMd5Sum(stream)) << size;
    }
    EXPECT_EQ("7707d6ae4e027c70eea2a935c2296f21", countMd5Sum(std::string(1000000, 'a')));
}

TEST(CountMd5Sum, FailsOnAFileThatCouldNotBeOpened) {
    std::ifstream stream("/no/such/file");
    try {
        countMd5Sum(stream);
        FAIL();
    } catch (const Exc<&StreamRead>& error) {
        EXPECT_STREQ("Cannot read data from the stream", error.what());
    }
}

TEST(CountMd5Sum, FailsOnAFileThatCannotBeRead) {
    const test::TempDir directory;
    std::ifstream stream(directory.path());
    EXPECT_THROW(countMd5Sum(stream), Exc<&StreamRead>);
}

class FailingBuffer : public std::stringbuf {
  public:
    FailingBuffer() : std::stringbuf(std::string(5000, 'x')) {}

  protected:
    int_type underflow() override { throw std::runtime_error("read error"); }
};

TEST(CountMd5Sum, FailsWhenTheStreamBreaksInTheMiddle) {
    FailingBuffer buffer;
    std::istream stream(&buffer);
    EXPECT_THROW(countMd5Sum(stream), Exc<&StreamRead>);
}

TEST(Md5, TakesDataInPieces) {
    Md5 sum;
    sum.update("a", 1);
    sum.update(nullptr, 0);
    sum.update("bc", 2);
    EXPECT_EQ(kAbcSum, sum.hexDigest());
}

TEST(StreamErrors, HaveTheirTexts) {
    EXPECT_STREQ("Cannot write data to the stream", Exc<&StreamWrite>("context", "file", 1).what());
}

}  // namespace
}  // namespace korva
