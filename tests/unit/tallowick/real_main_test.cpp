// SPDX-License-Identifier: Apache-2.0
#include "commons/session.h"
#include "fakes/fake_accounts.h"
#include "fakes/fake_action_factory.h"
#include "fakes/fake_fsync.h"
#include "fakes/fake_migration_status.h"
#include "support/captured_stream.h"
#include "support/child_process.h"
#include "support/files.h"
#include "support/product_dir.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "tallowick/driver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::CapturedStream;
using test::productDir;
using test::readFile;
using test::ScopedEnv;
using test::ScriptedAction;
using test::writeFile;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// What a run does to its process (log4cpp, passwords) cannot be undone: each has a process of its own.
class RealMain : public testing::Test {
  protected:
    RealMain() {
        writeFile(productDir() + "/log4cpp.properties", readFile(DEFAULT_LOG_PROPERTIES));
        letActionDo([] {});
    }

    void letActionDo(const std::function<void()>& work) {
        test::makeAction = [work](const config& given) {
            auto action = std::make_unique<ScriptedAction>(true, [work](ScriptedAction&) { work(); });
            action->setConfig(&given);
            return action;
        };
    }
    static void inAProcessOfItsOwn(const std::function<void()>& body) {
        EXPECT_EQ(0, test::statusOfChild(body));
    }
    int run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "tallowick");
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        return real_main(static_cast<int>(arguments.size()), argv.data());
    }
    /// A complete command line and `more`.
    std::vector<std::string> complete(std::vector<std::string> more = {}) const {
        more.insert(more.begin(),
                    {"--send-scout", "--host=source.example", "--login=user", "--session-path=" + session()});
        return more;
    }
    std::string session() const { return dir / "session"; }
    std::string log() const { return readFile(session() + "/migration.log"); }

    test::TempDir dir;
    test::FakePanelAccount account{::getuid(), ::getgid()};
    test::FakeMigrationStatus status;
    test::FakeFsync fsync;
    ScopedEnv password{"OVN_PASSWORD", "login word"};
    ScopedEnv sudoPassword{"OVN_SUDO_PASSWORD", std::nullopt};
};

TEST_F(RealMain, RunsTheActionAndRecordsItsStartAndItsEnd) {
    inAProcessOfItsOwn([this] {
        const CapturedStream error(std::cerr);
        EXPECT_EQ(0, run(complete()));
        EXPECT_THAT(log(), HasSubstr("INFO k.log: Tallowick started : tallowick --send-scout "
                                     "--host=source.example --login=user --session-path="));
        EXPECT_THAT(log(), EndsWith("INFO k.log: Tallowick finished. Exit code: 0\n"));
        EXPECT_THAT(readFile(session() + "/migration.result"), HasSubstr("success"));
        EXPECT_EQ("", error.str());
        EXPECT_EQ(nullptr, theSession);
    });
}

TEST_F(RealMain, PrintsTheUsageAndCreatesNothing) {
    for (const char* option : {"--help", "-h"}) {
        inAProcessOfItsOwn([&] {
            const CapturedStream output(std::cout);
            EXPECT_EQ(0, run({option}));
            EXPECT_THAT(output.str(), HasSubstr("Usage: "));
        });
        inAProcessOfItsOwn([&] {
            const CapturedStream output(std::cout);
            EXPECT_EQ(0, run({option, "--session-path=" + session()}));
            EXPECT_FALSE(std::filesystem::exists(session()));
        });
    }
}

TEST_F(RealMain, RequiresAnAction) {
    inAProcessOfItsOwn([this] {
        const CapturedStream error(std::cerr);
        EXPECT_EQ(1, run({"--session-path=" + session()}));
        EXPECT_EQ("Action required. See --help\n", error.str());
        EXPECT_FALSE(std::filesystem::exists(session()));
    });
}

TEST_F(RealMain, RequiresASessionPathForEveryActionAndForSeveral) {
    for (const std::vector<std::string>& actions : std::vector<std::vector<std::string>>{
             {"--send-scout"}, {"--remove-dumping-status"}, {"--send-scout", "--dump-all"}}) {
        inAProcessOfItsOwn([&] {
            const CapturedStream error(std::cerr);
            EXPECT_EQ(1, run(actions));
            EXPECT_EQ("--session-path is required.\n", error.str());
        });
    }
}

TEST_F(RealMain, AddsNothingToTheMessageOfTheScanner) {
    inAProcessOfItsOwn([this] {
        testing::internal::CaptureStderr();
        EXPECT_EQ(1, run(complete({"--no-such-option"})));
        EXPECT_EQ("tallowick: unrecognized option '--no-such-option'\n",
                  testing::internal::GetCapturedStderr());
        EXPECT_FALSE(std::filesystem::exists(session()));
    });
}

TEST_F(RealMain, LogsAValidationErrorBetweenStartAndFinishAndWritesNoResult) {
    inAProcessOfItsOwn([this] {
        const CapturedStream error(std::cerr);
        EXPECT_EQ(1, run(complete({"--port=65536"})));
        EXPECT_EQ("Unable to parse command line: port should be a number in [1, 65535] range", error.str());
        EXPECT_THAT(log(), AllOf(HasSubstr("Tallowick started : "),
                                 HasSubstr("port should be a number in [1, 65535] range [./driver:"),
                                 EndsWith("Tallowick finished. Exit code: 1\n")));
        EXPECT_FALSE(std::filesystem::exists(session() + "/migration.result"));
        EXPECT_TRUE(status.calls.empty());
    });
}

TEST_F(RealMain, RejectsTwoActions) {
    inAProcessOfItsOwn([this] {
        const CapturedStream error(std::cerr);
        EXPECT_EQ(1, run(complete({"--dump-all"})));
        EXPECT_EQ("Unable to parse command line: More than one action is given", error.str());
    });
}

TEST_F(RealMain, RemovesTheDumpingStatusOnlyWithoutAPasswordInTheEnvironment) {
    inAProcessOfItsOwn([this] {
        const CapturedStream error(std::cerr);
        EXPECT_EQ(1, run({"--remove-dumping-status", "--session-path=" + session()}));
        EXPECT_EQ("Unable to parse command line: password is not allowed with --help or -h\n", error.str());
    });
    const ScopedEnv none("OVN_PASSWORD", std::nullopt);
    inAProcessOfItsOwn([this] {
        EXPECT_EQ(0, run({"--remove-dumping-status", "--session-path=" + session()}));
    });
}

TEST_F(RealMain, ReportsTheStatusOfAFailedAction) {
    letActionDo([] { throw Exc<&SshInvalidCredentials>("context", "file", 1) % "source.example"; });
    inAProcessOfItsOwn([this] {
        const CapturedStream error(std::cerr);
        EXPECT_EQ(17, run(complete()));
        EXPECT_THAT(log(), EndsWith("Tallowick finished. Exit code: 17\n"));
    });
}

TEST_F(RealMain, ReportsNoExitCodeWhenAPlainExceptionLeavesIt) {
    letActionDo([] { throw std::runtime_error("another"); });
    inAProcessOfItsOwn([this] {
        EXPECT_THROW(run(complete()), std::runtime_error);
        EXPECT_THAT(log(), EndsWith("Tallowick finished.  (exit code is not reported)\n"));
        EXPECT_EQ(nullptr, theSession);
    });
}

TEST_F(RealMain, NeedsTheConfigurationOfItsLog) {
    std::filesystem::remove(productDir() + "/log4cpp.properties");
    inAProcessOfItsOwn([this] { EXPECT_THROW(run(complete()), std::runtime_error); });
}

TEST_F(RealMain, NeedsASessionDirectory) {
    writeFile(session(), "not a directory");
    inAProcessOfItsOwn([this] { EXPECT_THROW(run(complete()), Exc<&UnableToCreateSession>); });
}

TEST_F(RealMain, LogsToTheConsoleOnlyWhenItIsVerbose) {
    inAProcessOfItsOwn([this] {
        const CapturedStream error(std::cerr);
        EXPECT_EQ(0, run(complete({"--verbose"})));
        EXPECT_THAT(error.str(), HasSubstr("INFO k.log: Tallowick started : "));
    });
}

TEST_F(RealMain, LeavesNoPasswordInItsLogItsEnvironmentOrItsOutput) {
    const ScopedEnv sudo("OVN_SUDO_PASSWORD", "sudo word");
    inAProcessOfItsOwn([this] {
        const CapturedStream output(std::cout);
        const CapturedStream error(std::cerr);
        EXPECT_EQ(1, run(complete({"--sudo-password", "--verbose", "--agent-name=a"})));
        EXPECT_EQ(nullptr, std::getenv("OVN_PASSWORD"));
        EXPECT_EQ(nullptr, std::getenv("OVN_SUDO_PASSWORD"));
        for (const std::string& text : {log(), output.str(), error.str()}) {
            EXPECT_THAT(text, AllOf(Not(HasSubstr("login word")), Not(HasSubstr("sudo word"))));
        }
    });
}

}  // namespace
}  // namespace korva
