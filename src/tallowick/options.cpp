// SPDX-License-Identifier: Apache-2.0
#include "tallowick/options.h"

#include "tallowick/option_errors.h"
#include "utils/env_password.h"

#include <getopt.h>

#include <cstdlib>
#include <limits>

namespace korva {
namespace {

constexpr const char* kSourceName = "./driver";

// The values of action options are the action identifiers; -h shares its own.
enum Option : int {
    kOptNoContent = 256,
    kOptNoCompress,
    kOptHost,
    kOptPort,
    kOptLogin,
    kOptAgentDir,
    kOptAgentName,
    kOptDumpsDir,
    kOptNoCheckSpace,
    kOptNoEncryption,
    kOptSudoPassword,
    kOptResellers,
    kOptClients,
    kOptDomains,
    kOptSelectedObjectsFile,
    kOptSessionPath,
    kOptVerbose,
    kOptOnlyMail,
    kOptOnlyHosting,
    kOptContentTransport,
    kOptServer,
    kOptAdminInfo,
    kOptNoLicense,
};

constexpr option kOptions[] = {
    {"send-scout", no_argument, nullptr, kSendScout},
    {"deploy-agent", no_argument, nullptr, kDeployAgent},
    {"get-dumping-status", no_argument, nullptr, kGetDumpingStatus},
    {"dump-selected", no_argument, nullptr, kDumpSelected},
    {"dump-all", no_argument, nullptr, kDumpAll},
    {"get-content", no_argument, nullptr, kGetContent},
    {"remove-agent", no_argument, nullptr, kRemoveAgent},
    {"remove-dumping-status", no_argument, nullptr, kRemoveDumpingStatus},
    {"help", no_argument, nullptr, kHelp},
    {"no-content", no_argument, nullptr, kOptNoContent},
    {"no-compress", no_argument, nullptr, kOptNoCompress},
    {"ip", required_argument, nullptr, kOptHost},
    {"host", required_argument, nullptr, kOptHost},
    {"port", required_argument, nullptr, kOptPort},
    {"login", required_argument, nullptr, kOptLogin},
    {"agent-dir", required_argument, nullptr, kOptAgentDir},
    {"agent-name", required_argument, nullptr, kOptAgentName},
    {"dumps-dir", required_argument, nullptr, kOptDumpsDir},
    {"no-check-space", no_argument, nullptr, kOptNoCheckSpace},
    {"no-encryption", no_argument, nullptr, kOptNoEncryption},
    {"sudo-password", no_argument, nullptr, kOptSudoPassword},
    {"resellers", required_argument, nullptr, kOptResellers},
    {"clients", required_argument, nullptr, kOptClients},
    {"domains", required_argument, nullptr, kOptDomains},
    {"selected-objects-file", required_argument, nullptr, kOptSelectedObjectsFile},
    {"session-path", required_argument, nullptr, kOptSessionPath},
    {"verbose", no_argument, nullptr, kOptVerbose},
    {"only-mail", no_argument, nullptr, kOptOnlyMail},
    {"only-hosting", no_argument, nullptr, kOptOnlyHosting},
    {"content-transport", required_argument, nullptr, kOptContentTransport},
    {"server", no_argument, nullptr, kOptServer},
    {"admin-info", no_argument, nullptr, kOptAdminInfo},
    {"no-license", no_argument, nullptr, kOptNoLicense},
    {nullptr, 0, nullptr, 0},
};

void selectAction(int id, config& cfg) {
    cfg.action = cfg.action == kNoAction ? id : kSeveralActions;
}

// -1 for what is no port number; what follows the digits is ignored.
std::int32_t parsePort(const char* text) {
    const long port = std::strtol(text, nullptr, 10);
    const bool valid = port > 0 && port <= std::numeric_limits<std::uint16_t>::max();
    return valid ? static_cast<std::int32_t>(port) : -1;
}

void takeSudoPassword(config& cfg) {
    cfg.sudo = true;
    if (is_sudo_password_provided()) {
        cfg.sudo_password_provided = true;
        cfg.sudo_password = get_sudo_password();
    }
}

// The field that an option with an argument fills; null for other options.
std::string* stringField(int opt, config& cfg) {
    switch (opt) {
        case kOptHost:
            return &cfg.host;
        case kOptLogin:
            return &cfg.login;
        case kOptAgentDir:
            return &cfg.agent_dir;
        case kOptAgentName:
            return &cfg.agent_name;
        case kOptDumpsDir:
            return &cfg.dumps_dir;
        case kOptResellers:
            return &cfg.resellers;
        case kOptClients:
            return &cfg.clients;
        case kOptDomains:
            return &cfg.domains;
        case kOptSelectedObjectsFile:
            return &cfg.selected_objects_file;
        case kOptSessionPath:
            return &cfg.session_path;
        case kOptContentTransport:
            return &cfg.content_transport;
        default:
            return nullptr;
    }
}

void setFlag(int opt, config& cfg) {
    switch (opt) {
        case kOptNoContent:
            cfg.no_content = true;
            break;
        case kOptNoCompress:
            cfg.compress = kCompressNone;
            break;
        case kOptNoCheckSpace:
            cfg.no_check_space = true;
            break;
        case kOptNoEncryption:
            cfg.no_encryption = true;
            break;
        case kOptVerbose:
            cfg.verbose = true;
            break;
        case kOptOnlyMail:
            cfg.filter = kFilterOnlyMail;
            break;
        case kOptOnlyHosting:
            cfg.filter = kFilterOnlyHosting;
            break;
        case kOptServer:
            cfg.server = true;
            break;
        case kOptAdminInfo:
            cfg.admin_info = true;
            break;
        case kOptNoLicense:
            cfg.no_license = true;
            break;
        default:
            break;
    }
}

void applyOption(int opt, config& cfg) {
    if (isAction(opt)) {
        selectAction(opt, cfg);
    } else if (opt == kOptPort) {
        cfg.port = parsePort(optarg);
    } else if (opt == kOptSudoPassword) {
        takeSudoPassword(cfg);
    } else if (std::string* field = stringField(opt, cfg)) {
        *field = optarg;
    } else {
        setFlag(opt, cfg);
    }
}

// False when the scanner has found and told an error.
bool scanOptions(int argc, char** argv, config& cfg) {
    optind = 0;  // GNU: start anew
    for (;;) {
        const int opt = getopt_long(argc, argv, "h", static_cast<const option*>(kOptions), nullptr);
        if (opt == -1) {
            return true;
        }
        if (opt == '?' || opt == ':') {
            return false;
        }
        applyOption(opt == 'h' ? static_cast<int>(kHelp) : opt, cfg);
    }
}

void verifyActionIsOne(const config& cfg) {
    if (cfg.action == kNoAction) {
        throw KORVA_EXC(OptParsingError) % "No action given";
    }
    if (cfg.action == kSeveralActions) {
        throw KORVA_EXC(OptParsingError) % "More than one action is given";
    }
}

void verifyOptionsFitAction(const config& cfg) {
    if (cfg.action != kGetContent) {
        if (cfg.no_check_space) {
            extra_option("no-check-space", "get-content");
        }
        if (cfg.no_encryption) {
            extra_option("no-encryption", "get-content");
        }
    }
    if (cfg.action != kDumpSelected && cfg.action != kDumpAll && cfg.no_content) {
        extra_option("no-content", "dump-*");
    }
}

// The wording mentions help, though it is also used where an option does not fit the action.
void verifyNoConnectionOptions(const config& cfg) {
    if (!cfg.host.empty()) {
        invalid_option("host");
    }
    if (cfg.port != 0) {
        invalid_option("port");
    }
    if (!cfg.login.empty()) {
        invalid_option("login");
    }
    if (!cfg.password.empty()) {
        invalid_option("password");
    }
    if (!cfg.agent_dir.empty()) {
        invalid_option("agent directory");
    }
    if (!cfg.agent_name.empty()) {
        invalid_option("agent name");
    }
    if (cfg.sudo) {
        invalid_option("sudo parameters");
    }
}

void verifyConnectionOptions(const config& cfg) {
    if (cfg.host.empty()) {
        req_action_argument_missed("host");
    }
    if (cfg.port == -1) {
        throw KORVA_EXC(OptParsingError) % "port should be a number in [1, 65535] range";
    }
    if (cfg.login.empty()) {
        req_action_argument_missed("login");
    }
    if (cfg.password.empty()) {
        req_action_argument_missed("password");
    }
    if (cfg.sudo && !cfg.sudo_password_provided) {
        throw KORVA_EXC(OptParsingError) %
            "OVN_SUDO_PASSWORD environment variable is not provided with --sudo-password\n";
    }
}

void verifyAgentOptions(const config& cfg) {
    if (cfg.action == kSendScout) {
        if (!cfg.agent_dir.empty()) {
            invalid_option("agent directory");
        }
        if (!cfg.agent_name.empty()) {
            invalid_option("agent name");
        }
        return;
    }
    if (cfg.agent_dir.empty()) {
        req_action_argument_missed("agent directory");
    }
    if (cfg.agent_name.empty()) {
        req_action_argument_missed("agent name");
    }
}

}  // namespace

bool isAction(int option) {
    return option >= kSendScout && option <= kHelp;
}

bool parse_options(int argc, char** argv, config* cfg) {
    const bool scanned = scanOptions(argc, argv, *cfg);
    cfg->password = get_env_noncrypted_password();
    forgetSudoPassword();
    return scanned;
}

void verify_options(config* cfg) {
    verifyActionIsOne(*cfg);
    verifyOptionsFitAction(*cfg);
    if (cfg->action == kRemoveDumpingStatus || cfg->action == kHelp) {
        verifyNoConnectionOptions(*cfg);
        return;
    }
    verifyConnectionOptions(*cfg);
    verifyAgentOptions(*cfg);
}

}  // namespace korva
