// SPDX-License-Identifier: Apache-2.0
#include "tallowick/actions.h"

#include "commons/bounded_text.h"
#include "commons/discard_stream.h"
#include "commons/file_claim.h"
#include "commons/filesystem.h"
#include "commons/output_file.h"
#include "commons/product_paths.h"
#include "commons/session.h"
#include "commons/signal_hold.h"
#include "commons/termination.h"
#include "commons/umask_scope.h"
#include "tallowick/agent_commands.h"
#include "tallowick/args_builder.h"
#include "tallowick/second_error.h"
#include "tallowick/status_refresh.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <tuple>

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

constexpr unsigned short kDefaultPort = 22;

constexpr int kStatusOfCatWithoutFile = 1;

// The bytes of this prefix are fixed: credentials that sudo has cached are dropped, so that it always takes
// the first line of the input for the password; the prompt is a blank.
constexpr const char* kSudoPrefix = "sudo -k; sudo -S -p ' ' ";

std::string readAll(std::istream& in) {
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The dump may need the space. What was in the way and was refused stays.
void removeRegularFile(const std::string& path) {
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
        std::ignore = unlink(path.c_str());
    }
}

// Other runs of the session may refresh its one copy, too. Who finds the new one claimed leaves it to the
// other; the claim lasts until the new copy has its final name, since whoever opened it before would go on
// writing to it.
void refreshCopy(Ssh& ssh, const std::string& remotePath, const std::string& name) {
    const std::string unfinished = name + ".tmp";
    const UmaskScope umask(022);
    const FileClaim claim(unfinished);
    if (!claim.isHeld()) {
        return;
    }
    try {
        // A dumper that has not written its status yet is no failure.
        if (ssh.get(unfinished, remotePath) == 0) {
            std::ignore = std::rename(unfinished.c_str(), name.c_str());  // the next refresh may do better
        }
    } catch (...) {
        removeRegularFile(unfinished);
        throw;
    }
}

}  // namespace

Action::Action(bool withStatus) {
    if (withStatus) {
        status_ = createMigrationStatusFile();
        saveIdle();
    }
}

Action::~Action() {
    if (!status_) {
        return;
    }
    try {
        saveIdle();
    } catch (const std::exception& e) {  // the run ends for another reason, which decides its status
        tellSecondError(e);
    }
}

void Action::saveIdle() {
    status_->setIdle();
    status_->saveFile();
}

void Action::finish() {
    if (status_) {
        const std::unique_ptr<MigrationStatus> last = std::move(status_);
        last->setIdle();
        last->saveFile();
    }
}

Ssh* Action::getSsh() {
    if (!ssh_) {
        const SignalHold hold;  // a tick finds the connection whole or not at all
        const unsigned short port = cfg().port == 0 ? kDefaultPort : static_cast<unsigned short>(cfg().port);
        ssh_ = std::make_unique<Ssh>(cfg().host, cfg().login, cfg().password, cfg().no_encryption, port);
        ssh_->addSecret(cfg().sudo_password);
    }
    return ssh_.get();
}

int Action::execUser(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput) {
    return getSsh()->exec(inAgentDirectory(cfg().agent_dir, command), in, out, err, quietOutput, quietInput,
                          Ssh::null_counter);
}

int Action::execUser(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput) {
    return getSsh()->exec(inAgentDirectory(cfg().agent_dir, command), out, err, quietOutput,
                          Ssh::null_counter);
}

int Action::execRoot(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                     bool quietOutput, bool quietInput) {
    if (!cfg().sudo) {
        return execUser(command, in, out, err, quietOutput, quietInput);
    }
    checkSudoPresence();
    const std::string asRoot = kSudoPrefix + command;
    if (cfg().sudo_password.empty()) {
        return execUser(asRoot, in, out, err, quietOutput, quietInput);
    }
    std::istringstream withPassword(cfg().sudo_password + "\n" + readAll(in));
    return execUser(asRoot, withPassword, out, err, quietOutput, quietInput);
}

int Action::execRoot(const std::string& command, std::ostream& out, std::ostream& err, bool quietInput) {
    std::istringstream noInput;
    return execRoot(command, noInput, out, err, false, quietInput);
}

void Action::checkSudoPresence() {
    if (sudoChecked_) {
        return;
    }
    try {
        requireSudoCommand();
    } catch (const Exc<&SshCommandNotFound>&) {  // the error below says all that it does
        throw KORVA_EXC(SudoNotFound) % cfg().host;
    }
    try {
        requireSudoRights();
    } catch (const Exc<&SshUnknown>&) {  // the error below says all that it does
        throw KORVA_EXC(SudoNotAllowed) % cfg().login % cfg().host;
    }
    sudoChecked_ = true;
}

// "sudo -V" succeeds wherever sudo exists.
void Action::requireSudoCommand() {
    const std::string command = "sudo -V";
    DiscardStream out;
    BoundedText err;
    if (getSsh()->exec(command, out, err, false, Ssh::null_counter) != 0) {
        throw KORVA_EXC(SshCommandNotFound) % command;
    }
}

void Action::requireSudoRights() {
    const std::string command = std::string(kSudoPrefix) + "true";
    std::istringstream password(cfg().sudo_password);
    DiscardStream out;
    BoundedText err;
    const int status = getSsh()->exec(command, password, out, err, false, false, Ssh::null_counter);
    if (status != 0) {
        throw KORVA_EXC(SshUnknown) % command % status;
    }
}

void Action::takeFile(const std::string& remotePath) {
    if (!cfg().sudo) {
        return;
    }
    checkSudoPresence();
    DiscardStream out;
    BoundedText err;
    const std::string chown = (ArgsBuilder("chown") << cfg().login << remotePath).str();
    if (execRoot(chown, out, err, false) != 0) {
        throw KORVA_EXC(CantTakeFileOwnership) % remotePath % err.str();
    }
}

std::string Action::dumpingStatusPath() const {
    return cfg().agent_dir + "/" + files::getRemoteDumpingStatusFileName();
}

void Action::setAlarmFunction() {
    if (ssh_) {
        ssh_->setAlarm(this);
    }
}

void Action::clearAlarmFunction() {
    if (ssh_) {
        ssh_->setAlarm(nullptr);
    }
}

void Action::doAlarm() {
    Action* const refreshed = pAction.exchange(nullptr);  // ticks that come meanwhile do nothing
    try {
        getSsh()->setAlarm(nullptr);
        refreshCopy(*getSsh(), dumpingStatusPath(), theSession->getDumpingStatusFileName());
    } catch (const MigrationTerminatedException&) {
        throw;
    } catch (...) {  // a refresh never disturbs the dump; refreshing ends here
        return;
    }
    alarm(kRefreshIntervalSeconds);
    pAction = refreshed;
}

void SendScoutAction::execute() {
    status().setAgentParams(cfg().host);
    status().setAgentOperation(MigrationStatus::deploy);
    status().saveFile();

    const std::string scoutName = files::getScoutFileName();
    if (!check_input_file(scoutName.c_str(), true)) {  // the opening of a FIFO would wait for its other end
        throw KORVA_EXC(UnableToOpenScoutFile);
    }
    std::ifstream scout(scoutName);
    if (!scout) {
        throw KORVA_EXC(UnableToOpenScoutFile);
    }
    OutputFile report(theSession->getScoutResultFileName());
    BoundedText err;
    const int exitCode = execRoot("perl", scout, report, err, false, true);
    report.close();
    if (exitCode != 0) {
        throw KORVA_EXC(FailedToExecuteScout) % exitCode % err.str();
    }
    status().setAgentOperation(MigrationStatus::wait);
    status().saveFile();
}

void GetDumpingStatusAction::execute() {
    try {
        status().setAgentParams(cfg().host);
        status().setAgentOperation(MigrationStatus::wait);
        status().saveFile();
        const std::string remotePath = dumpingStatusPath();
        takeFile(remotePath);
        print(remotePath);
    } catch (const ExTraceable& e) {
        throw KORVA_EXC_CAUSED_BY(DumpStatusError, e);
    }
}

void GetDumpingStatusAction::print(const std::string& remotePath) {
    BoundedText err;
    const int result = getSsh()->get(std::cout, err, remotePath, Ssh::null_counter);
    if (result == 0) {
        return;
    }
    theDebugLog->log("Dumping status was not read: " + err.str());
    // There may be nothing to print yet; but with sudo the file has just been taken.
    if (cfg().sudo || result != kStatusOfCatWithoutFile) {
        throw KORVA_EXC(SshUnknown) % ("cat " + remotePath) % result;
    }
}

void RemoveAgentAction::execute() {
    try {
        DiscardStream out;
        BoundedText err;
        // It runs inside the directory that it removes.
        execRoot((ArgsBuilder("rm") << "-rf" << cfg().agent_dir).str(), out, err, false);
    } catch (const ExTraceable& e) {  // the manager goes on without a tidy source host
        theDebugLog->log(e);
    }
}

void RemoveDumpingStatusAction::execute() {
    // On this host, by the path that it would have on the source host: so it is fixed.
    std::ignore = unlink(dumpingStatusPath().c_str());
}

}  // namespace korva
