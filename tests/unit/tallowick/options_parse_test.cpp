// SPDX-License-Identifier: Apache-2.0
#include "support/scoped_env.h"
#include "tallowick/options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace korva {
namespace {

using test::ScopedEnv;

/// The record of a command line that the scanner accepts; nothing when it does not.
std::optional<config> parse(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "tallowick");
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    config cfg;
    const bool accepted = parse_options(static_cast<int>(arguments.size()), argv.data(), &cfg);
    return accepted ? std::optional(cfg) : std::nullopt;
}

TEST(IsAction, HoldsForTheNineActionIdentifiers) {
    for (int id = 0; id <= 8; ++id) {
        EXPECT_TRUE(isAction(id)) << id;
    }
    EXPECT_FALSE(isAction(-1));
    EXPECT_FALSE(isAction(9));
    EXPECT_FALSE(isAction('h'));
}

TEST(ParseOptions, LeavesTheInitialValuesWithoutOptions) {
    const config cfg = parse({}).value();
    EXPECT_EQ(-1, cfg.action);
    EXPECT_EQ(0, cfg.port);
    EXPECT_EQ(0, cfg.compress);
    EXPECT_EQ(0, cfg.filter);
    for (const std::string& text :
         {cfg.resellers, cfg.clients, cfg.domains, cfg.host, cfg.login, cfg.password, cfg.agent_dir,
          cfg.agent_name, cfg.dumps_dir, cfg.session_path, cfg.selected_objects_file, cfg.sudo_password,
          cfg.content_transport}) {
        EXPECT_EQ("", text);
    }
    for (const bool flag :
         {cfg.no_content, cfg.no_check_space, cfg.no_encryption, cfg.sudo, cfg.sudo_password_provided,
          cfg.verbose, cfg.server, cfg.admin_info, cfg.no_license}) {
        EXPECT_FALSE(flag);
    }
}

TEST(ParseOptions, GivesEachActionOptionItsIdentifier) {
    const char* const options[] = {
        "--send-scout",  "--deploy-agent", "--get-dumping-status",    "--dump-selected", "--dump-all",
        "--get-content", "--remove-agent", "--remove-dumping-status", "--help"};
    int id = 0;
    for (const char* option : options) {
        EXPECT_EQ(id++, parse({option})->action) << option;
    }
    EXPECT_EQ(8, parse({"-h"})->action);
}

TEST(ParseOptions, MarksMoreThanOneActionWhicheverTheyAre) {
    EXPECT_EQ(-2, parse({"--send-scout", "--dump-all"})->action);
    EXPECT_EQ(-2, parse({"-h", "--send-scout"})->action);
    EXPECT_EQ(-2, parse({"--help", "-h"})->action);
}

TEST(ParseOptions, MarksARepeatedActionAsMoreThanOne) {
    EXPECT_EQ(-2, parse({"--send-scout", "--send-scout"})->action);
}

TEST(ParseOptions, KeepsTheMarkForTheRestOfTheScan) {
    EXPECT_EQ(-2, parse({"--send-scout", "--send-scout", "--dump-all"})->action);
    EXPECT_EQ(-2, parse({"--send-scout", "--send-scout", "--dump-all", "--dump-all"})->action);
}

TEST(ParseOptions, FillsEachTextFromItsOption) {
    const struct {
        const char* option;
        std::string config::*field;
    } rows[] = {{"--ip", &config::host},
                {"--host", &config::host},
                {"--login", &config::login},
                {"--agent-dir", &config::agent_dir},
                {"--agent-name", &config::agent_name},
                {"--dumps-dir", &config::dumps_dir},
                {"--resellers", &config::resellers},
                {"--clients", &config::clients},
                {"--domains", &config::domains},
                {"--selected-objects-file", &config::selected_objects_file},
                {"--session-path", &config::session_path},
                {"--content-transport", &config::content_transport}};
    for (const auto& row : rows) {
        const std::string option = row.option;
        EXPECT_EQ("a value", (*parse({option + "=a value"}).*row.field)) << option;
        EXPECT_EQ("a value", (*parse({option, "a value"}).*row.field)) << option;
        EXPECT_EQ("--send-scout", (*parse({option, "--send-scout"}).*row.field)) << option;
        EXPECT_EQ("", (*parse({option + "="}).*row.field)) << option;
        EXPECT_EQ("second", (*parse({option, "first", option, "second"}).*row.field)) << option;
        EXPECT_FALSE(parse({option})) << option;
    }
    EXPECT_EQ("second", parse({"--ip=first", "--host=second"})->host);
    EXPECT_EQ("second", parse({"--host=first", "--ip=second"})->host);
}

TEST(ParseOptions, SetsEachFlagFromItsOption) {
    const struct {
        const char* option;
        bool config::*field;
    } rows[] = {{"--no-content", &config::no_content},
                {"--no-check-space", &config::no_check_space},
                {"--no-encryption", &config::no_encryption},
                {"--sudo-password", &config::sudo},
                {"--verbose", &config::verbose},
                {"--server", &config::server},
                {"--admin-info", &config::admin_info},
                {"--no-license", &config::no_license}};
    for (const auto& row : rows) {
        EXPECT_TRUE((*parse({row.option}).*row.field)) << row.option;
        EXPECT_FALSE(parse({std::string(row.option) + "=value"})) << row.option;
    }
}

TEST(ParseOptions, SetsCompressionAndFilter) {
    EXPECT_EQ(2, parse({"--no-compress"})->compress);
    EXPECT_EQ(1, parse({"--only-mail"})->filter);
    EXPECT_EQ(2, parse({"--only-hosting"})->filter);
}

TEST(ParseOptions, LetsTheLastFilterWin) {
    EXPECT_EQ(2, parse({"--only-mail", "--only-hosting"})->filter);
    EXPECT_EQ(1, parse({"--only-hosting", "--only-mail"})->filter);
}

TEST(ParseOptions, TakesPortsFrom1To65535) {
    EXPECT_EQ(1, parse({"--port=1"})->port);
    EXPECT_EQ(22, parse({"--port", "22"})->port);
    EXPECT_EQ(65535, parse({"--port=65535"})->port);
    EXPECT_EQ(2222, parse({"--port=22", "--port=2222"})->port);
}

TEST(ParseOptions, MarksPortsOutOfRange) {
    for (const char* port : {"0", "65536", "-5", "-1", "", "ssh", "65558", "4294967318",
                             "99999999999999999999", "-99999999999999999999"}) {
        EXPECT_EQ(-1, parse({std::string("--port=") + port})->port) << port;
    }
}

TEST(ParseOptions, IgnoresWhatFollowsThePortNumber) {
    EXPECT_EQ(22, parse({"--port=22abc"})->port);
    EXPECT_EQ(22, parse({"--port= 22"})->port);
    EXPECT_EQ(-1, parse({"--port=0x16"})->port);
}

TEST(ParseOptions, LetsAnInvalidPortReplaceAValidOne) {
    EXPECT_EQ(-1, parse({"--port=22", "--port=0"})->port);
}

TEST(ParseOptions, TakesUnambiguousAbbreviations) {
    EXPECT_EQ(0, parse({"--send"})->action);
    EXPECT_EQ("h", parse({"--ho=h"})->host);
    EXPECT_FALSE(parse({"--no-co"}));
    EXPECT_FALSE(parse({"--remove"}));
}

TEST(ParseOptions, EndsWithFalseAtAScannerErrorAndLeavesTheMessageToTheScanner) {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse({"--no-such-option"}));
    EXPECT_EQ("tallowick: unrecognized option '--no-such-option'\n", testing::internal::GetCapturedStderr());
    testing::internal::CaptureStderr();
    EXPECT_FALSE(parse({"--host"}));
    EXPECT_EQ("tallowick: option '--host' requires an argument\n", testing::internal::GetCapturedStderr());
    EXPECT_FALSE(parse({"-x"}));
}

TEST(ParseOptions, IgnoresArgumentsThatAreNoOptions) {
    const config cfg = parse({"word", "--send-scout", "another", "--", "--verbose"}).value();
    EXPECT_EQ(0, cfg.action);
    EXPECT_FALSE(cfg.verbose);
}

TEST(ParseOptions, TakesTheSudoPasswordOnlyWhenItIsAskedFor) {
    const ScopedEnv environment("OVN_SUDO_PASSWORD", "sudo word");
    const config without = parse({"--send-scout"}).value();
    EXPECT_FALSE(without.sudo);
    EXPECT_FALSE(without.sudo_password_provided);
    EXPECT_EQ("", without.sudo_password);
    const ScopedEnv again("OVN_SUDO_PASSWORD", "sudo word");
    const config with = parse({"--send-scout", "--sudo-password"}).value();
    EXPECT_TRUE(with.sudo);
    EXPECT_TRUE(with.sudo_password_provided);
    EXPECT_EQ("sudo word", with.sudo_password);
}

TEST(ParseOptions, TakesAnEmptySudoPasswordForProvided) {
    const ScopedEnv environment("OVN_SUDO_PASSWORD", "");
    const config cfg = parse({"--sudo-password"}).value();
    EXPECT_TRUE(cfg.sudo_password_provided);
    EXPECT_EQ("", cfg.sudo_password);
}

TEST(ParseOptions, NoticesAMissingSudoPassword) {
    const ScopedEnv environment("OVN_SUDO_PASSWORD", std::nullopt);
    const config cfg = parse({"--sudo-password"}).value();
    EXPECT_TRUE(cfg.sudo);
    EXPECT_FALSE(cfg.sudo_password_provided);
}

TEST(ParseOptions, TakesTheSudoPasswordOutOfTheEnvironmentWhetherItIsUsedOrNot) {
    for (const char* option : {"--sudo-password", "--verbose"}) {
        const ScopedEnv environment("OVN_SUDO_PASSWORD", "sudo word");
        parse({option});
        EXPECT_EQ(nullptr, std::getenv("OVN_SUDO_PASSWORD"));
    }
}

TEST(ParseOptions, KeepsTheSudoPasswordWhenTheOptionIsRepeated) {
    const ScopedEnv environment("OVN_SUDO_PASSWORD", "sudo word");
    EXPECT_EQ("sudo word", parse({"--sudo-password", "--sudo-password"})->sudo_password);
}

}  // namespace
}  // namespace korva
