// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"
#include "ssh/ssh-transfer.h"
#include "tallowick/options.h"
#include "xml/log.h"
#include "xml/migration_status.h"
#include "xml/xml_errors.h"

#include <iosfwd>
#include <memory>
#include <string>

namespace korva {

KORVA_ERROR_TAG(SshCommandNotFound, "Command '%1%' was not found on the remote host")
KORVA_ERROR_TAG(SshUnknown, "Command '%1%' has failed on the remote host with return code %2%")
KORVA_ERROR_TAG(SudoNotFound,
                "sudo command not found on the host %1%. You should install sudo to this host or supply root "
                "password for the migration.")
KORVA_ERROR_TAG(SudoNotAllowed, "sudo is not allowed for user %1% on host %2%.")
KORVA_ERROR_TAG(UnableToOpenScoutFile, "Unable to open %1% for transferring to the remote host")
KORVA_ERROR_TAG(FailedToExecuteScout,
                "Failed to execute scout. \nThe return code is %1%\nThe output on STDERR is\n%2%")
KORVA_ERROR_TAG(DumpStatusError, "Error during getting dumping status")

/// One step of a migration: owns the connection to the source host and keeps the status document.
class Action : public Alarm {
  public:
    /// `withStatus`: keep a status document, idle from now on. Opens no connection.
    explicit Action(bool withStatus);
    Action(const Action&) = delete;
    Action& operator=(const Action&) = delete;
    /// Leaves the status document at idle; a failure to save it is told in the debug log and on standard
    /// error. Then closes the connection.
    ~Action() override;

    /// Refreshes the local copy of the dumping status, unless another run of the session is doing that just
    /// now. After a failure no further refresh happens.
    void doAlarm() override;
    /// `cfg` stays the caller's.
    virtual void setConfig(const config* cfg) { config_ = cfg; }
    /// `log` stays the caller's.
    virtual void setResult(Log* log) { result_ = log; }
    virtual void execute() = 0;

    /// Saves the status document as idle at the end of a run that went well. Throws what saving throws.
    void finish();

    /// Registers the action with its connection, if there is one yet. Safe in a signal handler.
    void setAlarmFunction();
    /// Takes the registration back.
    void clearAlarmFunction();

  protected:
    const config& cfg() const { return *config_; }
    MigrationStatus& status() { return *status_; }

    /// The connection, made on first use.
    Ssh* getSsh();

    /// Runs `command` in the agent directory as the login user. Returns its exit status; see Ssh::exec().
    int execUser(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                 bool quietOutput, bool quietInput);
    int execUser(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput);

    /// The same as root through sudo, when it was asked for.
    int execRoot(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
                 bool quietOutput, bool quietInput);
    /// With an empty input; the output is logged.
    int execRoot(const std::string& command, std::ostream& out, std::ostream& err, bool quietInput);

    /// Makes the login user the owner of a remote file that root has created. Throws CantTakeFileOwnership.
    void takeFile(const std::string& remotePath);

    /// Throws SudoNotFound or SudoNotAllowed. The source host is asked once per action.
    void checkSudoPresence();
    /// Its two questions. Throw SshCommandNotFound and SshUnknown, which it turns into those.
    void requireSudoCommand();
    void requireSudoRights();

    /// The dumping status in the agent directory.
    std::string dumpingStatusPath() const;

  private:
    void saveIdle();

    std::unique_ptr<Ssh> ssh_;
    const config* config_ = nullptr;
    Log* result_ = nullptr;
    std::unique_ptr<MigrationStatus> status_;  // goes before the connection does
    bool sudoChecked_ = false;
};

/// Runs the scout on the source host and keeps its report.
class SendScoutAction : public Action {
  public:
    SendScoutAction() : Action(true) {}
    void execute() override;
};

/// Prints the dumping status of the source host on standard output.
class GetDumpingStatusAction : public Action {
  public:
    GetDumpingStatusAction() : Action(true) {}
    void execute() override;

  private:
    void print(const std::string& remotePath);
};

/// Removes the agent directory from the source host. No failure on the way there or there is its own: an
/// agent that is gone is as good.
class RemoveAgentAction : public Action {
  public:
    RemoveAgentAction() : Action(false) {}
    void execute() override;
};

/// Removes the dumping status on this host, if there is one. Opens no connection.
class RemoveDumpingStatusAction : public Action {
  public:
    RemoveDumpingStatusAction() : Action(true) {}
    void execute() override;
};

}  // namespace korva
