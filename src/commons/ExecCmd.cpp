// SPDX-License-Identifier: Apache-2.0
#include "commons/ExecCmd.h"

#include "utils/fork_exec.h"

#include <cerrno>

namespace korva {
namespace {

constexpr const char* kSourceName = "./ExecCmd";

std::string streamSection(const char* name, const std::string& text) {
    if (text.empty()) {
        return {};
    }
    return (boost::format("%1% is\n%2%%3%") % name % text % (text.back() == '\n' ? "" : "\n")).str();
}

}  // namespace

ErrorKind ExecCmd::Failed(bool) {
    return {"ExecCmd::ExFailed", "Execution of %1% failed with return code %2%.\n%3%%4%%5%"};
}

ExecCmd::ExecCmd(const std::string& program) : path(program) {
    args << program;
}

ExecCmd& ExecCmd::operator<<(const std::string& argument) {
    args << argument;
    return *this;
}

void ExecCmd::setEnv(const std::string& name, const std::string& value) {
    env[name] = value;
}

int ExecCmd::exec() {
    if (execCmdLine() != 0) {
        reportError();
    }
    return 0;
}

int ExecCmd::exec(std::nothrow_t) noexcept {
    return execCmdLine();
}

int ExecCmd::execCmdLine() {
    executed = true;
    returnCode = forkExecvGetInOutErrSuidEnv(input, output, error, path, args, user, env);
    savedErrno = errno;
    errnoValid = true;
    return returnCode;
}

void ExecCmd::reportError() const {
    throw KORVA_EXC(ExecCmd::Failed) % args.getStringRepresentation() % returnCode %
        streamSection("Stdin", input) % streamSection("Stdout", output) % streamSection("Stderr", error);
}

}  // namespace korva
