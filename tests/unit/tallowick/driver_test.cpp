// SPDX-License-Identifier: Apache-2.0
#include "tallowick/driver.h"

#include "commons/filesystem.h"
#include "commons/session.h"
#include "commons/socket.h"
#include "commons/termination.h"
#include "fakes/fake_accounts.h"
#include "fakes/fake_action_factory.h"
#include "fakes/fake_fsync.h"
#include "fakes/fake_migration_status.h"
#include "ssh/libssh2pp.h"
#include "support/captured_stream.h"
#include "support/files.h"
#include "support/recording_logs.h"
#include "support/temp_dir.h"
#include "tallowick/action_factory.h"
#include "xml/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace korva {
namespace {

using test::CapturedStream;
using test::FakeFsync;
using test::FakePanelAccount;
using test::FedStream;
using test::readFile;
using test::ScriptedAction;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char* kSaveError = "Cannot rename migration.status.tmp to migration.status: the reason";

class DoActions : public testing::Test {
  protected:
    /// The action does this; `withStatus`: it keeps a status document.
    void letActionDo(std::function<void(ScriptedAction&)> work, bool withStatus = false) {
        test::makeAction = [work, withStatus](const config& given) {
            auto action = std::make_unique<ScriptedAction>(withStatus, work);
            action->setConfig(&given);
            return action;
        };
    }
    void letActionDo(const std::function<void()>& work, bool withStatus = false) {
        letActionDo([work](ScriptedAction&) { work(); }, withStatus);
    }

    std::string resultName() const { return dir / "session/migration.result"; }
    std::string result() const { return readFile(resultName()); }
    /// From here on the result document cannot be saved.
    void loseSession() const { std::filesystem::remove_all(dir / "session"); }

    template <auto Tag, typename... Arguments>
    int statusAfter(const Arguments&... arguments) {
        letActionDo([&] {
            Exc<Tag> failure("context", "file", 1);
            static_cast<void>((failure % ... % arguments));
            throw failure;
        });
        return do_actions(cfg);
    }

    test::TempDir dir;
    FakePanelAccount account{::getuid(), ::getgid()};
    SessionLifetimeController session{dir / "session"};
    test::RecordingDebugLog debugLog;
    test::FakeMigrationStatus status;
    std::optional<FakeFsync> fsync{std::in_place};
    CapturedStream output{std::cout};
    CapturedStream error{std::cerr};
    config cfg;
};

TEST_F(DoActions, EndWithSuccessAndADocumentThatSaysSo) {
    bool executed = false;
    letActionDo([&] { executed = true; });
    EXPECT_EQ(0, do_actions(cfg));
    EXPECT_TRUE(executed);
    EXPECT_THAT(result(), AllOf(HasSubstr("status=\"success\""), Not(HasSubstr("message"))));
    EXPECT_EQ("", output.str());
    EXPECT_EQ("", error.str());
    EXPECT_EQ(nullptr, theLog);
}

TEST_F(DoActions, GiveTheActionItsConfigurationAndTheResultLog) {
    cfg.host = "source.example";
    test::makeAction = [this](const config& given) {
        EXPECT_EQ(&cfg, &given);
        return std::make_unique<ScriptedAction>(false, [](ScriptedAction& action) {
            EXPECT_NE(nullptr, theLog);
            EXPECT_EQ(theLog, action.result);
        });
    };
    EXPECT_EQ(0, do_actions(cfg));
}

TEST_F(DoActions, EndTheActionBeforeTheDocumentIsSaved) {
    status.onDestroyed = [this] { EXPECT_FALSE(std::filesystem::exists(resultName())); };
    letActionDo([] {}, true);
    EXPECT_EQ(0, do_actions(cfg));
    EXPECT_TRUE(std::filesystem::exists(resultName()));
}

TEST_F(DoActions, WriteTheResultOfATransferIntoADocumentOfItsOwn) {
    cfg.action = 5;
    letActionDo([] {});
    EXPECT_EQ(0, do_actions(cfg));
    EXPECT_FALSE(std::filesystem::exists(resultName()));
    EXPECT_THAT(readFile(dir / "session/transfer.result"), HasSubstr("success"));
    EXPECT_EQ(11, (statusAfter<&ConnectionRefused>("source.example")));
    EXPECT_THAT(readFile(dir / "session/transfer.result"),
                AllOf(HasSubstr("status=\"error\""), HasSubstr("code=\"ConnectionRefused\"")));
    EXPECT_THAT(readFile(dir / "session/transfer.result.1"), HasSubstr("success"));
}

TEST(GetLogName, IsEmptyButForContent) {
    for (std::int32_t action = -2; action <= 8; ++action) {
        config cfg;
        cfg.action = action;
        EXPECT_EQ(action == 5 ? "transfer.result" : "", getLogName(cfg));
    }
}

TEST_F(DoActions, MapEachErrorToItsExitStatus) {
    EXPECT_EQ(11, (statusAfter<&ConnectionRefused>("h")));
    EXPECT_EQ(12, (statusAfter<&ConnectionTimedOut>("h")));
    EXPECT_EQ(13, (statusAfter<&NetworkUnreachable>("h")));
    EXPECT_EQ(14, (statusAfter<&HostUnreachable>("h")));
    EXPECT_EQ(15, (statusAfter<&ConnectionFault>("h", "reason")));
    EXPECT_EQ(16, (statusAfter<&HostNotFound>("h", "reason")));
    EXPECT_EQ(17, (statusAfter<&SshInvalidCredentials>("h")));
    EXPECT_EQ(18, (statusAfter<&SshConnectionFault>()));
}

TEST_F(DoActions, MapEveryOtherErrorTo2) {
    EXPECT_EQ(2, (statusAfter<&UnableToStartSshSession>("reason")));
    EXPECT_EQ(2, (statusAfter<&SshAuthorizationFailed>()));
    EXPECT_EQ(2, (statusAfter<&InvalidHandle>()));
    EXPECT_EQ(2, (statusAfter<&DumpStatusError>()));
    EXPECT_EQ(2, (statusAfter<&UnknownAction>()));
}

TEST_F(DoActions, MapAnErrorByItselfAndNotByItsCause) {
    letActionDo([] {
        throw Exc<&DumpStatusError>("context", "file", 1, Exc<&SshConnectionFault>("context", "file", 1));
    });
    EXPECT_EQ(2, do_actions(cfg));
    EXPECT_THAT(result(),
                AllOf(HasSubstr("code=\"DumpStatusError\""), HasSubstr("code=\"SshConnectionFault\"")));
}

TEST_F(DoActions, TellAnErrorInTheLogTheDocumentAndOnStandardErrorWithoutANewline) {
    EXPECT_EQ(11, (statusAfter<&ConnectionRefused>("source.example")));
    const std::string message = "No one listening on the remote address at host source.example";
    EXPECT_EQ(message, error.str());
    EXPECT_EQ("", output.str());
    EXPECT_THAT(debugLog.errors, ElementsAre(message));
    EXPECT_THAT(result(), AllOf(HasSubstr("status=\"error\""), HasSubstr("code=\"ConnectionRefused\""),
                                HasSubstr(message)));
}

TEST_F(DoActions, TellAnErrorOfTheFactoryTheSameWay) {
    test::makeAction = [](const config&) -> std::unique_ptr<Action> {
        throw Exc<&UnknownAction>("context", "file", 1);
    };
    EXPECT_EQ(2, do_actions(cfg));
    EXPECT_THAT(result(), HasSubstr("code=\"UnknownAction\""));
}

TEST_F(DoActions, CountATerminationOnRequestAsSuccess) {
    letActionDo([] { throw MigrationTerminatedException(); });
    EXPECT_EQ(0, do_actions(cfg));
    EXPECT_THAT(result(), AllOf(HasSubstr("status=\"success\""), Not(HasSubstr("message"))));
    EXPECT_EQ("Migration has been terminated", output.str());
    EXPECT_EQ("", error.str());
    EXPECT_THAT(debugLog.texts, ElementsAre("Migration has been terminated"));
    EXPECT_THAT(debugLog.errors, IsEmpty());
}

TEST_F(DoActions, LetAnyOtherExceptionPassWithADocumentThatTellsFailure) {
    letActionDo([] { throw std::runtime_error("another"); });
    EXPECT_THROW(do_actions(cfg), std::runtime_error);
    EXPECT_THAT(result(), HasSubstr("status=\"error\""));
    EXPECT_EQ("", error.str());
    letActionDo([] { throw 42; });
    EXPECT_THROW(do_actions(cfg), int);
}

using Lists = DoActions;

TEST_F(Lists, AreReadFromStandardInputOneOnly) {
    const FedStream input(std::cin, "one,two\nthree\n");
    cfg.resellers = "-";
    cfg.clients = "-";
    letActionDo([] {});
    do_actions(cfg);
    EXPECT_EQ("one,two", cfg.resellers);
    EXPECT_EQ("-", cfg.clients);
    std::string rest;
    std::getline(std::cin, rest);
    EXPECT_EQ("three", rest);
}

TEST_F(Lists, AreTakenInTheOrderResellersClientsDomains) {
    letActionDo([] {});
    {
        const FedStream input(std::cin, "one\ntwo\n");
        cfg.resellers = "r";
        cfg.clients = "-";
        cfg.domains = "-";
        do_actions(cfg);
        EXPECT_EQ("r", cfg.resellers);
        EXPECT_EQ("one", cfg.clients);
        EXPECT_EQ("-", cfg.domains);
    }
    const FedStream input(std::cin, "one\ntwo\n");
    cfg.clients = "";
    do_actions(cfg);
    EXPECT_EQ("one", cfg.domains);
}

TEST_F(Lists, AreLeftAloneUnlessTheyAreExactlyADash) {
    const FedStream input(std::cin, "one\n");
    cfg.resellers = "--";
    cfg.clients = "-,a";
    cfg.domains = "";
    letActionDo([] {});
    do_actions(cfg);
    EXPECT_EQ("--", cfg.resellers);
    EXPECT_EQ("-,a", cfg.clients);
    EXPECT_EQ("", cfg.domains);
}

TEST_F(Lists, NeedNoNewlineAtTheirEnd) {
    const FedStream input(std::cin, "one,two");
    cfg.domains = "-";
    letActionDo([] {});
    do_actions(cfg);
    EXPECT_EQ("one,two", cfg.domains);
}

TEST_F(Lists, AreEmptyWithNothingOnStandardInput) {
    const FedStream input(std::cin, "");
    cfg.resellers = "-";
    letActionDo([] {});
    EXPECT_EQ(0, do_actions(cfg));
    EXPECT_EQ("", cfg.resellers);
}

TEST_F(Lists, EndTheRunWhereTheyCannotBeReadToTheirEnd) {
    struct : std::streambuf {
        int_type underflow() override { throw std::runtime_error("an error of reading"); }
    } broken;
    std::streambuf* const before = std::cin.rdbuf(&broken);
    cfg.domains = "-";
    letActionDo([] { ADD_FAILURE() << "half of a list has passed for the whole"; });
    EXPECT_EQ(2, do_actions(cfg));
    std::cin.rdbuf(before);
    EXPECT_THAT(result(), HasSubstr("code=\"StreamRead\""));
}

TEST_F(Lists, AreThereWhenTheActionIsMade) {
    const FedStream input(std::cin, "one\n");
    cfg.resellers = "-";
    test::makeAction = [](const config& given) {
        EXPECT_EQ("one", given.resellers);
        return std::make_unique<ScriptedAction>(false, [](ScriptedAction&) {});
    };
    do_actions(cfg);
}

using UnsavedIdleStatus = DoActions;

TEST_F(UnsavedIdleStatus, MakesASuccessfulActionFail) {
    status.failingSaves = {2};
    letActionDo([] {}, true);
    EXPECT_EQ(2, do_actions(cfg));
    EXPECT_EQ(kSaveError, error.str());
    EXPECT_THAT(result(), AllOf(HasSubstr("status=\"error\""), HasSubstr("code=\"CantRenameFile\"")));
}

TEST_F(UnsavedIdleStatus, LeavesTheStatusOfAFailedActionAndIsToldBesideIt) {
    status.failingSaves = {2};
    letActionDo([] { throw Exc<&SshConnectionFault>("context", "file", 1); }, true);
    EXPECT_EQ(18, do_actions(cfg));
    EXPECT_EQ(std::string(kSaveError) + "Lost connection with the remote host", error.str());
    EXPECT_THAT(debugLog.errors, ElementsAre(kSaveError, "Lost connection with the remote host"));
    EXPECT_THAT(result(), AllOf(HasSubstr("SshConnectionFault"), Not(HasSubstr("CantRenameFile"))));
}

TEST_F(UnsavedIdleStatus, LeavesATerminationOnRequestASuccess) {
    status.failingSaves = {2};
    letActionDo([] { throw MigrationTerminatedException(); }, true);
    EXPECT_EQ(0, do_actions(cfg));
    EXPECT_EQ(kSaveError, error.str());
}

TEST_F(UnsavedIdleStatus, EndsARunAtItsStart) {
    status.failingSaves = {1};
    letActionDo([] { FAIL() << "executed"; }, true);
    EXPECT_EQ(2, do_actions(cfg));
    EXPECT_EQ(kSaveError, error.str());
}

using UnsavedResult = DoActions;

TEST_F(UnsavedResult, OfASuccessfulActionLeavesWithItsError) {
    letActionDo([this] { loseSession(); });
    EXPECT_THROW(do_actions(cfg), Exc<&CantCreateTempFile>);
    EXPECT_EQ("", error.str()) << "main() tells it";
    EXPECT_EQ(nullptr, theLog);
}

TEST_F(UnsavedResult, OfAFailedActionIsToldAndItsStatusStays) {
    letActionDo([this] {
        loseSession();
        throw Exc<&SshConnectionFault>("context", "file", 1);
    });
    EXPECT_EQ(18, do_actions(cfg));
    ASSERT_EQ(2U, debugLog.errors.size());
    EXPECT_THAT(debugLog.errors[1], HasSubstr("Can not create temporary file"));
    EXPECT_EQ("Lost connection with the remote host" + debugLog.errors[1], error.str());
}

TEST_F(UnsavedResult, OfAFailedActionIsToldToWhenItIsTheDiskThatFails) {
    fsync.reset();
    fsync.emplace(EIO);
    letActionDo([] { throw Exc<&SshConnectionFault>("context", "file", 1); });
    EXPECT_EQ(18, do_actions(cfg));
    EXPECT_THAT(error.str(), HasSubstr("Lost connection with the remote host"));
    EXPECT_GT(error.str().size(), std::string("Lost connection with the remote host").size());
}

TEST_F(UnsavedResult, OfASuccessfulActionLeavesWithTheErrorOfTheDiskToo) {
    fsync.reset();
    fsync.emplace(EIO);
    letActionDo([] {});
    EXPECT_THROW(do_actions(cfg), std::exception);
}

TEST_F(UnsavedResult, OfAnExceptionThatPassesNeverReplacesIt) {
    letActionDo([this] {
        loseSession();
        throw std::logic_error("another");
    });
    EXPECT_THROW(do_actions(cfg), std::logic_error);
}

TEST_F(DoActions, FlushTheDocumentToTheDisk) {
    letActionDo([] {});
    do_actions(cfg);
    EXPECT_FALSE(FakeFsync::flushed().empty());
}

}  // namespace
}  // namespace korva
