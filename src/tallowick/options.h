// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

namespace korva {

enum opt_backup_filter { kFilterNone = 0, kFilterOnlyMail = 1, kFilterOnlyHosting = 2 };
enum opt_backup_compress { kCompressNotGiven = 0, kCompressStandard = 1, kCompressNone = 2 };

/// What a run does; the numbers are those of the action options.
enum ActionId : std::int32_t {
    kSeveralActions = -2,
    kNoAction = -1,
    kSendScout = 0,
    kDeployAgent = 1,
    kGetDumpingStatus = 2,
    kDumpSelected = 3,
    kDumpAll = 4,
    kGetContent = 5,
    kRemoveAgent = 6,
    kRemoveDumpingStatus = 7,
    kHelp = 8,
};

/// The parsed command line and the passwords of the environment.
struct config {
    std::int32_t action = kNoAction;
    std::string resellers;
    std::string clients;
    std::string domains;
    bool no_content = false;
    opt_backup_compress compress = kCompressNotGiven;
    std::string host;
    std::int32_t port = 0;  ///< 0: not given; -1: given, but not within 1..65535
    std::string login;
    std::string password;
    std::string agent_dir;
    std::string agent_name;
    std::string dumps_dir;
    std::string session_path;
    std::string selected_objects_file;
    bool no_check_space = false;
    bool no_encryption = false;
    bool sudo = false;
    bool sudo_password_provided = false;
    std::string sudo_password;
    bool verbose = false;
    opt_backup_filter filter = kFilterNone;
    std::string content_transport;
    bool server = false;
    bool admin_info = false;
    bool no_license = false;
};

/// Whether `option` is one of the action identifiers 0..8.
bool isAction(int option);

/// Fills `cfg` from the command line and the environment, from which it removes the passwords. False when
/// the scanner found an error, which it has told on standard error. Rules are checked by verify_options().
bool parse_options(int argc, char** argv, config* cfg);

/// Throws OptParsingError for the first rule that `cfg` breaks.
void verify_options(config* cfg);

}  // namespace korva
