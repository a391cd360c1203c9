// SPDX-License-Identifier: Apache-2.0
#include "fuzz/error_report.h"
#include "tallowick/dump_selection.h"
#include "tallowick/option_errors.h"
#include "tallowick/options.h"
#include "utils/env_password.h"

#include <getopt.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <sstream>
#include <tuple>
#include <vector>

namespace {

using korva::config;
using korva::fuzz::require;

constexpr const char* kPassword = "canary-of-the-login";
constexpr const char* kSudoDefinition = "OVN_SUDO_PASSWORD=canary-of-sudo";

struct Input {
    bool password;
    bool sudoPassword;
    std::vector<std::string> arguments;
};

// The first line tells which passwords there are: "p", "s". Each other line is an argument.
Input inputOf(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);
    Input input{line.find('p') != std::string::npos, line.find('s') != std::string::npos, {"tallowick"}};
    while (std::getline(lines, line)) {
        input.arguments.push_back(line);
    }
    return input;
}

// Once for all inputs: the first parse takes it out of the environment and keeps it.
void offerPassword() {
    static const bool offered = [] {
        opterr = 0;  // the scanner's own messages are many here
        return ::setenv("OVN_PASSWORD", kPassword, 1) == 0;
    }();
    require(offered, "the environment takes a password");
}

// Erased where it lies by each parse. Not setenv(3), which remembers every definition for ever.
void offerSudoPassword(bool given) {
    static std::array<char, 64> definition;
    ::unsetenv("OVN_SUDO_PASSWORD");
    if (given) {
        std::strcpy(definition.data(), kSudoDefinition);
        ::putenv(definition.data());
    }
}

bool parse(const Input& input, config& cfg) {
    offerPassword();
    offerSudoPassword(input.sudoPassword);
    std::vector<std::string> arguments = input.arguments;
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const bool accepted = korva::parse_options(static_cast<int>(arguments.size()), argv.data(), &cfg);
    require(std::getenv("OVN_PASSWORD") == nullptr && !korva::is_sudo_password_provided(),
            "no password stays in the environment");
    require(cfg.password == kPassword, "the password is taken");
    if (!input.password) {
        cfg.password.clear();
    }
    return accepted;
}

auto fieldsOf(const config& cfg) {
    return std::tie(cfg.action, cfg.resellers, cfg.clients, cfg.domains, cfg.no_content, cfg.compress,
                    cfg.host, cfg.port, cfg.login, cfg.agent_dir, cfg.agent_name, cfg.dumps_dir,
                    cfg.session_path, cfg.selected_objects_file, cfg.no_check_space, cfg.no_encryption,
                    cfg.sudo, cfg.sudo_password_provided, cfg.sudo_password, cfg.verbose, cfg.filter,
                    cfg.content_transport, cfg.server, cfg.admin_info, cfg.no_license);
}

void requireRanges(const config& cfg) {
    require(cfg.action >= korva::kSeveralActions && cfg.action <= korva::kHelp, "the action is known");
    require(cfg.port >= -1 && cfg.port <= 65535, "the port is one, or marked as none");
    require(!cfg.sudo_password_provided || cfg.sudo, "the sudo password comes with its option");
}

void requireComplete(const config& cfg) {
    require(cfg.action >= korva::kSendScout, "one action is chosen");
    const bool connects = cfg.action < korva::kRemoveDumpingStatus;
    require(connects != cfg.host.empty() && connects != cfg.login.empty() && connects != cfg.password.empty(),
            "connection options are there where the host is needed, and only there");
    require(cfg.port >= 0 && (connects || cfg.port == 0), "the port fits");
    require(!cfg.sudo || (connects && cfg.sudo_password_provided), "sudo has its password");
    const bool hasAgent = connects && cfg.action != korva::kSendScout;
    require(hasAgent != cfg.agent_dir.empty() && hasAgent != cfg.agent_name.empty(), "the agent fits");
}

void requireDumperInput(config cfg) {
    cfg.selected_objects_file.clear();
    const korva::DumperInput input = korva::buildDumperInput(cfg);
    for (const std::string& argument : input.arguments) {
        require(argument.starts_with("--"), "an argument of the dumper is an option");
        require(argument.find_first_not_of("-=abcdefghijklmnopqrstuvwxyz") == std::string::npos,
                "names do not travel as arguments");
    }
}

}  // namespace

/// The input is a command line, an argument in each line, behind a line for the environment.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Input input = inputOf(korva::fuzz::textOf(data, size));
    config cfg;
    const bool accepted = parse(input, cfg);
    config again;
    require(parse(input, again) == accepted && fieldsOf(again) == fieldsOf(cfg),
            "a second scan gives what the first gave");
    requireRanges(cfg);
    if (!accepted) {
        return 0;
    }
    try {
        korva::verify_options(&cfg);
    } catch (const korva::Exc<&OptParsingError>& error) {
        korva::fuzz::requireReport(error);
        require(std::strstr(error.what(), "canary") == nullptr, "the message quotes no password");
        return 0;
    }
    requireComplete(cfg);
    if (cfg.action == korva::kDumpSelected || cfg.action == korva::kDumpAll) {
        requireDumperInput(cfg);
    }
    return 0;
}
