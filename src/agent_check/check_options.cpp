// SPDX-License-Identifier: Apache-2.0
#include "agent_check/check_options.h"

#include <getopt.h>

#include <charconv>
#include <iostream>
#include <string_view>

namespace korva::agent_check {
namespace {

enum Option : int {
    kOptHelp = 'h',
    kOptShared = 256,
    kOptDomains,
    kOptClients,
    kOptResellers,
    kOptSelectedObjectsFile,
    kOptTimeLimit,
    kOptKeep,
    kOptAllowRoot,
};

constexpr option kOptions[] = {
    {"shared", required_argument, nullptr, kOptShared},
    {"domains", required_argument, nullptr, kOptDomains},
    {"clients", required_argument, nullptr, kOptClients},
    {"resellers", required_argument, nullptr, kOptResellers},
    {"selected-objects-file", required_argument, nullptr, kOptSelectedObjectsFile},
    {"time-limit", required_argument, nullptr, kOptTimeLimit},
    {"keep", no_argument, nullptr, kOptKeep},
    {"allow-root", no_argument, nullptr, kOptAllowRoot},
    {"help", no_argument, nullptr, kOptHelp},
    {nullptr, 0, nullptr, 0},
};

bool takeTimeLimit(std::string_view text, CheckOptions& options) {
    constexpr int kMost = 1'000'000;
    int seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error != std::errc() || end != text.data() + text.size() || seconds < 1 || seconds > kMost) {
        std::cerr << "tallowick-agent-check: --time-limit takes a number of seconds\n";
        return false;
    }
    options.timeLimit = std::chrono::seconds(seconds);
    return true;
}

std::string* stringField(int opt, CheckOptions& options) {
    switch (opt) {
        case kOptShared:
            return &options.shared;
        case kOptDomains:
            return &options.selection.domains;
        case kOptClients:
            return &options.selection.clients;
        case kOptResellers:
            return &options.selection.resellers;
        case kOptSelectedObjectsFile:
            return &options.selection.selected_objects_file;
        default:
            return nullptr;
    }
}

bool takeOption(int opt, CheckOptions& options) {
    if (std::string* const field = stringField(opt, options)) {
        *field = optarg;
        options.selection.action = opt == kOptShared ? options.selection.action : kDumpSelected;
        return true;
    }
    switch (opt) {
        case kOptTimeLimit:
            return takeTimeLimit(optarg, options);
        case kOptKeep:
            options.keep = true;
            return true;
        case kOptAllowRoot:
            options.allowRoot = true;
            return true;
        case kOptHelp:
            options.help = true;
            return true;
        default:
            return false;
    }
}

}  // namespace

const char* const kUsage =
    R"(Usage: tallowick-agent-check [OPTION...] AGENT-DIRECTORY

Runs a migration agent on this machine as tallowick would on a source host, in
a directory of its own, and tells what a migration would trip over.

  --shared=DIR                   what all agents share (shared beside the agent)
  --domains=NAME[,NAME...]       dump these (everything, if nothing is named)
  --clients=NAME[,NAME...]
  --resellers=NAME[,NAME...]
  --selected-objects-file=FILE   dump what a selection of the manager names
  --time-limit=SECONDS           for each call of the agent (300)
  --keep                         leave the directory where the agent ran
  --allow-root                   let root run the agent, as sudo would
  -h, --help                     print this

One line for each rule: ok, warning or problem, with what to do about it;
skipped where an earlier problem is in the way.
Exit status: 0 without a problem, 1 with problems, 2 if it could not check.
)";

bool parseCheckOptions(int argc, char** argv, CheckOptions& options) {
    options.selection.action = kDumpAll;
    for (;;) {
        const int opt = getopt_long(argc, argv, "h", static_cast<const option*>(kOptions), nullptr);
        if (opt == -1) {
            break;
        }
        if (!takeOption(opt, options)) {
            return false;
        }
    }
    if (options.help) {
        return true;
    }
    if (argc - optind != 1) {
        std::cerr << "tallowick-agent-check: give one agent directory; see --help\n";
        return false;
    }
    options.agent = argv[optind];
    return true;
}

}  // namespace korva::agent_check
