// SPDX-License-Identifier: Apache-2.0
#include "fuzz/error_report.h"
#include "support/recording_logs.h"
#include "tallowick/dump_selection.h"

#include <algorithm>
#include <array>

namespace {

using korva::fuzz::require;

constexpr std::array<std::string_view, 8> kArguments = {
    "--migration-mode", "--dump-domains=-", "--dump-clients=-",      "--dump-resellers=-",
    "--only-mail",      "--only-hosting",   "--include-app-distrib", "--no-compress"};

/// A file may hold the passwords, as the other side may have repeated them.
korva::config configWith(const std::string& file) {
    korva::config cfg;
    cfg.action = korva::kDumpSelected;
    cfg.selected_objects_file = file;
    cfg.password = "canary-of-the-login";
    cfg.sudo_password = "canary-of-sudo";
    return cfg;
}

std::string joinedLists(const std::string& path) {
    std::array<std::string, 3> lists;
    korva::opt_backup_filter filter = korva::kFilterNone;
    korva::opt_backup_compress compress = korva::kCompressNotGiven;
    bool server = false;
    bool adminInfo = false;
    bool license = false;
    korva::parseSelectedObjectsFile(path, lists[0], lists[1], lists[2], filter, compress, server, adminInfo,
                                    license);
    require(server || !license, "a license is one of a server");
    std::string joined;
    for (const std::string& list : lists) {
        joined += (joined.empty() || list.empty() ? "" : "\n") + list;
    }
    return joined;
}

}  // namespace

/// The input is a selected-objects file.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const korva::test::RecordingDebugLog debugLog;
    const std::string& path = korva::fuzz::fileOf(data, size);
    try {
        const korva::DumperInput input = korva::buildDumperInput(configWith(path));
        for (const std::string& argument : input.arguments) {
            require(std::find(kArguments.begin(), kArguments.end(), argument) != kArguments.end(),
                    "names do not travel as arguments");
        }
        require(input.stdinText == joinedLists(path), "the dumper is given the names of the file");
        require(korva::toXmlText(input.stdinText) == input.stdinText, "names are text");
    } catch (const korva::ExTraceable& error) {
        korva::fuzz::requireReport(error);
        const std::string message = error.what();
        require(message.find("canary-of-the-login") == std::string::npos &&
                    message.find("canary-of-sudo") == std::string::npos,
                "the message quotes no password");
    }
    require(debugLog.errors.empty(), "no single node fails");
    return 0;
}
