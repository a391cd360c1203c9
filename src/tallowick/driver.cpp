// SPDX-License-Identifier: Apache-2.0
#include "tallowick/driver.h"

#include "commons/session.h"
#include "commons/socket.h"
#include "commons/stream_errors.h"
#include "commons/termination.h"
#include "ssh/libssh2pp.h"
#include "tallowick/action_factory.h"
#include "tallowick/exit_status.h"
#include "tallowick/lifetime.h"
#include "tallowick/option_errors.h"
#include "tallowick/second_error.h"
#include "tallowick/start_stop_logger.h"
#include "tallowick/usage.h"
#include "utils/ovn_conf.h"
#include "xml/log.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>

namespace korva {
namespace {

constexpr const char* kSourceName = "./driver";

template <auto Tag>
bool isKind(const ExTraceable& error) {
    return dynamic_cast<const Exc<Tag>*>(&error) != nullptr;
}

struct StatusOfError {
    bool (*matches)(const ExTraceable& error);
    ExitStatus status;
};

constexpr StatusOfError kStatusOfErrors[] = {
    {&isKind<&ConnectionRefused>, kExitConnectionRefused},
    {&isKind<&ConnectionTimedOut>, kExitConnectionTimedOut},
    {&isKind<&NetworkUnreachable>, kExitNetworkUnreachable},
    {&isKind<&HostUnreachable>, kExitHostUnreachable},
    {&isKind<&ConnectionFault>, kExitConnectionFault},
    {&isKind<&HostNotFound>, kExitHostNotFound},
    {&isKind<&SshInvalidCredentials>, kExitInvalidCredentials},
    {&isKind<&SshConnectionFault>, kExitLostConnection},
};

ExitStatus exitStatusOf(const ExTraceable& error) {
    for (const StatusOfError& row : kStatusOfErrors) {
        if (row.matches(error)) {
            return row.status;
        }
    }
    return kExitFailure;
}

// std::cin reads through stdio and takes an error of that for the end.
bool inputHasFailed() {
    return std::cin.bad() || std::ferror(stdin) != 0;
}

// One list at the most: the manager feeds a single one.
void readListFromInput(config& cfg) {
    for (std::string* list : {&cfg.resellers, &cfg.clients, &cfg.domains}) {
        if (*list == "-") {
            list->clear();
            std::getline(std::cin, *list);
            if (inputHasFailed()) {  // half of a list must not pass for the whole
                throw KORVA_EXC(StreamRead);
            }
            return;
        }
    }
}

void report(const ExTraceable& error) {
    theDebugLog->log(error);
    theLog->log(error);
    std::cerr << error.what();
}

int execute(config& cfg) {
    try {
        readListFromInput(cfg);
        const std::unique_ptr<Action> action = getActionById(cfg);
        action->setResult(theLog);
        action->execute();
        action->finish();
        theLog->setSuccess(true);
        return kExitSuccess;
    } catch (const ExTraceable& error) {
        report(error);
        return exitStatusOf(error);
    } catch (const MigrationTerminatedException& termination) {  // on request: a success
        theLog->setSuccess(true);
        theDebugLog->log(std::string(termination.what()));
        std::cout << termination.what() << std::flush;
        return kExitSuccess;
    }
}

// After a failed action its outcome stays: a second error is only told.
void saveResultOfFailure(LogLifetimeController& log) {
    try {
        log.close();
    } catch (const std::exception& error) {
        tellSecondError(error);
    }
}

}  // namespace

std::string getLogName(const config& cfg) {
    return cfg.action == kGetContent ? "transfer.result" : "";
}

int do_actions(config& cfg) {
    LogLifetimeController log(getLogName(cfg));
    int status = kExitFailure;
    try {
        status = execute(cfg);
    } catch (...) {
        saveResultOfFailure(log);
        throw;
    }
    if (status == kExitSuccess) {
        log.close();
    } else {
        saveResultOfFailure(log);
    }
    return status;
}

int real_main(int argc, char** argv) {
    ovnConfLoad();
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    config cfg;
    if (!parse_options(argc, argv, &cfg)) {
        return kExitUsage;
    }
    if (cfg.action == kHelp) {
        usage();
        return kExitSuccess;
    }
    if (cfg.action == kNoAction) {
        std::cerr << "Action required. See --help\n";
        return kExitUsage;
    }
    if (cfg.session_path.empty()) {
        std::cerr << "--session-path is required.\n";
        return kExitUsage;
    }
    const SessionLifetimeController session(cfg.session_path);
    const DebugLogLifetimeController debugLog(false, cfg.verbose);
    StartStopLogger run("Tallowick", argc, argv, {cfg.password, cfg.sudo_password});
    try {
        verify_options(&cfg);
    } catch (const Exc<&OptParsingError>& error) {
        theDebugLog->log(error);
        std::cerr << error.what();
        run.setExitCode(kExitUsage);
        return kExitUsage;
    }
    const int status = do_actions(cfg);
    run.setExitCode(status);
    return status;
}

}  // namespace korva
