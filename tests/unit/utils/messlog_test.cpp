// SPDX-License-Identifier: Apache-2.0
#include "utils/messlog.h"

#include "support/child_process.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

namespace korva {
namespace {

using test::readFile;
using test::redirectToFile;
using test::statusOfChild;
using test::TempDir;

const std::string kPrefix = std::string(program_invocation_short_name) + ": ";

/// What a process that runs `body` writes to its two outputs, and how it ends.
class Messlog : public testing::Test {
  protected:
    void run(const std::function<void()>& body) {
        status = statusOfChild([&] {
            redirectToFile(STDOUT_FILENO, directory_ / "out");
            redirectToFile(STDERR_FILENO, directory_ / "err");
            body();
        });
        output = readFile(directory_ / "out");
        error = readFile(directory_ / "err");
    }

    int status = -1;
    std::string output;
    std::string error;

  private:
    TempDir directory_;
};

TEST_F(Messlog, WritesTheMessageToBothOutputs) {
    run([] {
        errno = 0;
        messlog2(0, 1, "hello %s", "world");
    });
    EXPECT_EQ(kPrefix + "hello world\n", error);
    EXPECT_EQ(kPrefix + "hello world\n", output);
    EXPECT_EQ(0, status);
}

TEST_F(Messlog, AddsNoSecondNewline) {
    run([] {
        errno = 0;
        messlog2(0, 1, "line\n");
    });
    EXPECT_EQ(kPrefix + "line\n", error);
}

TEST_F(Messlog, AddsTheSystemErrorWhenThereIsOne) {
    run([] {
        errno = ENOENT;
        messlog2(0, 1, "cannot");
    });
    EXPECT_EQ(kPrefix + "cannot\nSystem error 2: No such file or directory\n", error);
    EXPECT_EQ(error, output);
}

TEST_F(Messlog, WritesMessagesLongerThanItsBuffer) {
    for (const std::size_t length : {4095U, 4096U, 4097U, 100000U}) {
        const std::string text(length, 'x');
        run([&text] {
            errno = 0;
            messlog2(0, 1, "%s", text.c_str());
        });
        EXPECT_EQ(kPrefix + text + "\n", output) << length;
    }
}

TEST_F(Messlog, EndsTheProcessWithTheStatusUnlessItIsZero) {
    run([] {
        errno = 0;
        messlog2(3, 1, "the end");
        std::puts("not reached");
    });
    EXPECT_EQ(3, status);
    EXPECT_EQ(kPrefix + "the end\n", output);
}

TEST_F(Messlog, RunsExitHandlersOfTheProgram) {
    run([] {
        std::atexit([] { std::puts("handler"); });
        errno = 0;
        messlog2(3, 1, "the end");
    });
    EXPECT_EQ(kPrefix + "the end\nhandler\n", output);
}

TEST_F(Messlog, LeavesBuffersAndExitHandlersOfTheParentAlone) {
    run([] {
        std::atexit([] { std::puts("handler"); });
        std::fputs("buffered", stdout);
        messlogInForkedChild();
        errno = 0;
        messlog2(3, 1, "the end");
    });
    EXPECT_EQ(3, status);
    EXPECT_EQ(kPrefix + "the end\n", output);
    EXPECT_EQ(kPrefix + "the end\n", error);
}

}  // namespace
}  // namespace korva
