// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/arg_list.h"
#include "commons/exception.h"

#include <map>
#include <new>
#include <string>

namespace korva {

/// What a command line is made for; not copied.
class CmdLine {
  public:
    CmdLine() = default;
    CmdLine(const CmdLine&) = delete;
    CmdLine& operator=(const CmdLine&) = delete;
    virtual ~CmdLine() = default;
};

/// A local command: built up, run once, then asked for what it wrote. No time limit: a command that does not
/// end blocks the caller.
class ExecCmd : public CmdLine {
  public:
    /// The kind of error of a command that failed.
    static ErrorKind Failed(bool);

    /// `program` is looked up through PATH and becomes the command's argument 0.
    explicit ExecCmd(const std::string& program);
    ~ExecCmd() override = default;

    /// Appends an argument.
    virtual ExecCmd& operator<<(const std::string& argument);

    /// Sets a variable in the command's environment, in addition to our own.
    virtual void setEnv(const std::string& name, const std::string& value);

    /// The text for its standard input. The run fails (SystemError) if the command does not read it all.
    void setInput(const std::string& text) { input = text; }

    /// The account to run as. Empty, "root" and unknown names leave the identity as it is.
    void setUser(const std::string& account) { user = account; }

    /// Runs the command. Throws Exc<&ExecCmd::Failed>, which quotes the command and its three streams, unless
    /// it exits with 0. Throws SystemError when running it fails.
    virtual int exec();

    /// Runs the command and returns its exit status, -1 if a signal killed it. A system error ends the
    /// program.
    virtual int exec(std::nothrow_t) noexcept;

    /// Runs the command and returns its exit status, -1 if a signal killed it. Throws SystemError.
    virtual int execCmdLine();

    const std::string& getOutput() const { return output; }
    const std::string& getError() const { return error; }
    int getReturnCode() const { return returnCode; }
    bool isExecuted() const { return executed; }
    /// errno as the run left it, or 0 before the run.
    int getErrno() const { return errnoValid ? savedErrno : 0; }

  private:
    [[noreturn]] void reportError() const;

    ArgList args;
    std::string path;
    std::string input;
    std::map<std::string, std::string> env;
    std::string output;
    std::string error;
    bool executed = false;
    bool errnoValid = false;
    int savedErrno = 0;
    int returnCode = 0;
    std::string user;
};

}  // namespace korva
