// SPDX-License-Identifier: Apache-2.0
#include "tallowick/option_errors.h"
#include "tallowick/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace korva {
namespace {

constexpr const char* kAccepted = "accepted";

/// What is wrong with `cfg`, without the beginning that all messages share.
std::string complaintAbout(config cfg) {
    const std::string beginning = "Unable to parse command line: ";
    try {
        verify_options(&cfg);
        return kAccepted;
    } catch (const Exc<&OptParsingError>& error) {
        const std::string message = error.what();
        EXPECT_TRUE(message.starts_with(beginning)) << message;
        return message.substr(beginning.size());
    }
}

std::string required(const std::string& what) {
    return what + " is required unless --help or -h requested\n";
}

std::string notAllowed(const std::string& what) {
    return what + " is not allowed with --help or -h\n";
}

std::string onlyWith(const std::string& option, const std::string& action) {
    return "'--" + option + "' only may be specified when '--" + action + "' is requested";
}

/// A complete command line of the action.
config complete(std::int32_t action) {
    config cfg;
    cfg.action = action;
    if (action == kRemoveDumpingStatus || action == kHelp) {
        return cfg;
    }
    cfg.host = "source.example";
    cfg.login = "user";
    cfg.password = "word";
    if (action != kSendScout) {
        cfg.agent_dir = "/agent";
        cfg.agent_name = "agent";
    }
    return cfg;
}

config with(config cfg, const std::function<void(config&)>& change) {
    change(cfg);
    return cfg;
}

/// One way to break a rule, and what is said of it.
struct Fault {
    std::function<void(config&)> commit;
    std::string complaint;
};

/// Checks that each fault is found alone, and before all those that come after it in the list.
void expectOrder(const config& good, const std::vector<Fault>& faults) {
    config cfg = good;
    for (auto fault = faults.rbegin(); fault != faults.rend(); ++fault) {
        EXPECT_EQ(fault->complaint, complaintAbout(with(good, fault->commit)));
        fault->commit(cfg);
        EXPECT_EQ(fault->complaint, complaintAbout(cfg));
    }
}

TEST(VerifyOptions, AcceptsACompleteCommandLineOfEachAction) {
    for (std::int32_t action = kSendScout; action <= kHelp; ++action) {
        EXPECT_EQ(kAccepted, complaintAbout(complete(action))) << action;
    }
}

TEST(VerifyOptions, RequiresExactlyOneAction) {
    EXPECT_EQ("No action given", complaintAbout(complete(kNoAction)));
    EXPECT_EQ("More than one action is given", complaintAbout(complete(kSeveralActions)));
    EXPECT_EQ(
        "More than one action is given",
        complaintAbout(with(complete(kSeveralActions), [](config& cfg) { cfg.no_check_space = true; })));
}

TEST(VerifyOptions, AllowsSpaceAndEncryptionOptionsOnlyForContent) {
    EXPECT_EQ(kAccepted, complaintAbout(with(complete(kGetContent), [](config& cfg) {
                  cfg.no_check_space = true;
                  cfg.no_encryption = true;
              })));
    for (std::int32_t action = kSendScout; action <= kHelp; ++action) {
        if (action == kGetContent) {
            continue;
        }
        expectOrder(
            complete(action),
            {{[](config& cfg) { cfg.no_check_space = true; }, onlyWith("no-check-space", "get-content")},
             {[](config& cfg) { cfg.no_encryption = true; }, onlyWith("no-encryption", "get-content")}});
    }
}

TEST(VerifyOptions, AllowsNoContentOnlyForDumps) {
    for (std::int32_t action = kSendScout; action <= kHelp; ++action) {
        const bool isDump = action == kDumpSelected || action == kDumpAll;
        EXPECT_EQ(isDump ? kAccepted : onlyWith("no-content", "dump-*"),
                  complaintAbout(with(complete(action), [](config& cfg) { cfg.no_content = true; })))
            << action;
    }
}

TEST(VerifyOptions, AllowsNoConnectionOptionWhereThereIsNoConnection) {
    for (const std::int32_t action : {kRemoveDumpingStatus, kHelp}) {
        expectOrder(
            complete(action),
            {{[](config& cfg) { cfg.no_encryption = true; }, onlyWith("no-encryption", "get-content")},
             {[](config& cfg) { cfg.no_content = true; }, onlyWith("no-content", "dump-*")},
             {[](config& cfg) { cfg.host = "h"; }, notAllowed("host")},
             {[](config& cfg) { cfg.port = 22; }, notAllowed("port")},
             {[](config& cfg) { cfg.login = "l"; }, notAllowed("login")},
             {[](config& cfg) { cfg.password = "p"; }, notAllowed("password")},
             {[](config& cfg) { cfg.agent_dir = "d"; }, notAllowed("agent directory")},
             {[](config& cfg) { cfg.agent_name = "n"; }, notAllowed("agent name")},
             {[](config& cfg) { cfg.sudo = true; }, notAllowed("sudo parameters")}});
        EXPECT_EQ(notAllowed("port"),
                  complaintAbout(with(complete(action), [](config& cfg) { cfg.port = -1; })));
    }
}

TEST(VerifyOptions, RejectsAPasswordInTheEnvironmentWhereTheDumpingStatusIsRemoved) {
    EXPECT_EQ(kAccepted, complaintAbout(complete(kRemoveDumpingStatus)));
    EXPECT_EQ(notAllowed("password"),
              complaintAbout(with(complete(kRemoveDumpingStatus), [](config& cfg) { cfg.password = "p"; })));
}

TEST(VerifyOptions, RequiresTheConnectionAndTheAgentInTheirOrder) {
    for (std::int32_t action = kDeployAgent; action <= kRemoveAgent; ++action) {
        expectOrder(complete(action),
                    {{[](config& cfg) { cfg.host.clear(); }, required("host")},
                     {[](config& cfg) { cfg.port = -1; }, "port should be a number in [1, 65535] range"},
                     {[](config& cfg) { cfg.login.clear(); }, required("login")},
                     {[](config& cfg) { cfg.password.clear(); }, required("password")},
                     {[](config& cfg) { cfg.sudo = true; },
                      "OVN_SUDO_PASSWORD environment variable is not provided with --sudo-password\n"},
                     {[](config& cfg) { cfg.agent_dir.clear(); }, required("agent directory")},
                     {[](config& cfg) { cfg.agent_name.clear(); }, required("agent name")}});
    }
}

TEST(VerifyOptions, AllowsNoAgentForTheScout) {
    expectOrder(complete(kSendScout),
                {{[](config& cfg) { cfg.host.clear(); }, required("host")},
                 {[](config& cfg) { cfg.port = -1; }, "port should be a number in [1, 65535] range"},
                 {[](config& cfg) { cfg.login.clear(); }, required("login")},
                 {[](config& cfg) { cfg.password.clear(); }, required("password")},
                 {[](config& cfg) { cfg.sudo = true; },
                  "OVN_SUDO_PASSWORD environment variable is not provided with --sudo-password\n"},
                 {[](config& cfg) { cfg.agent_dir = "d"; }, notAllowed("agent directory")},
                 {[](config& cfg) { cfg.agent_name = "n"; }, notAllowed("agent name")}});
}

TEST(VerifyOptions, AcceptsAnyGivenPortAndNone) {
    for (const std::int32_t port : {0, 1, 22, 65535}) {
        EXPECT_EQ(kAccepted,
                  complaintAbout(with(complete(kSendScout), [=](config& cfg) { cfg.port = port; })));
    }
}

TEST(VerifyOptions, AcceptsAnEmptySudoPasswordThatIsProvided) {
    EXPECT_EQ(kAccepted, complaintAbout(with(complete(kSendScout), [](config& cfg) {
                  cfg.sudo = true;
                  cfg.sudo_password_provided = true;
              })));
}

TEST(OptionErrors, CanSayThatAnActionNeedsAnOption) {
    try {
        no_action_option("agent-name", "deploy-agent");
    } catch (const Exc<&OptParsingError>& error) {
        EXPECT_STREQ(
            "Unable to parse command line: '--agent-name' is required when '--deploy-agent' action is "
            "requested",
            error.what());
    }
}

TEST(OptionErrors, AreRaisedInTheDriversName) {
    struct Visitor : ExInfoVisitor {
        void setCode(const std::string& value) override { code = value; }
        void setId(const std::string& /*id*/) override {}
        void setMessage(const std::string& /*message*/) override {}
        void setContext(const std::string& value) override { context = value; }
        void setFile(const std::string& value) override { file = value; }
        void setLine(int /*line*/) override {}
        void advanceToInnerException() override {}
        std::string code;
        std::string context;
        std::string file;
    } visitor;
    config cfg = complete(kNoAction);
    try {
        verify_options(&cfg);
    } catch (const ExTraceable& error) {
        error.accept(visitor);
    }
    EXPECT_EQ("OptParsingError", visitor.code);
    EXPECT_EQ("./driver", visitor.file);
    EXPECT_THAT(visitor.context, testing::HasSubstr("verifyActionIsOne("));
    try {
        extra_option("no-content", "dump-*");
    } catch (const ExTraceable& error) {
        error.accept(visitor);
    }
    EXPECT_THAT(visitor.context, testing::HasSubstr("extra_option("));
}

}  // namespace
}  // namespace korva
