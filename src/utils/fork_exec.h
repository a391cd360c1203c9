// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/arg_list.h"

#include <sys/types.h>

#include <map>
#include <string>

namespace korva {

/// Runs a program, found through PATH, as `user` (empty, "root" or an unknown name: as whoever we are) with
/// `env` set in its environment. Feeds it `input`, appends what it writes to `output` and `error`, and waits
/// for its end whatever happens. Returns its exit status, or -1 when a signal killed it; a program that
/// cannot be started has status 1 and says why on both outputs. Throws SystemError when a call fails, also
/// when the program ends or closes its input before it has read all of `input`.
int forkExecvGetInOutErrSuidEnv(std::string input, std::string& output, std::string& error,
                                const std::string& path, const ArgList& args, const std::string& user,
                                const std::map<std::string, std::string>& env);

/// The same with an empty input.
int forkExecvGetOutErrSuidEnv(std::string& output, std::string& error, const std::string& path,
                              const ArgList& args, const std::string& user,
                              const std::map<std::string, std::string>& env);

/// The same with nothing added to the environment.
int forkExecvGetOutErrSuid(std::string& output, std::string& error, const std::string& path,
                           const ArgList& args, const std::string& user);

/// The same as whoever we are.
int forkExecvGetOutErr(std::string& output, std::string& error, const std::string& path, const ArgList& args);

/// The same with standard error dropped.
int forkExecvGetOut(std::string& output, const std::string& path, const ArgList& args);

/// Starts a program on the given descriptors (-1 stands for /dev/null) and returns its pid to the parent. The
/// child has no other descriptor, an empty signal mask, default actions for SIGPIPE and SIGXFSZ, and none of
/// our passwords in its environment. Throws SystemError when there is no child; a child that cannot be set up
/// ends with a message and status 1.
pid_t forkExecvPipes(int inFd, int outFd, int errFd, const std::string& path, const ArgList& args,
                     const std::string& user, const std::map<std::string, std::string>& env);

/// Makes `target` a copy of `fd` (-1 stands for /dev/null), closes `fd`, and returns `target`. Does nothing
/// when they are the same. Throws SystemError when /dev/null cannot be opened; -1 when the copy fails.
int dup2Custom(int fd, int target);

/// Appends what can be read from a non-blocking descriptor. False at end of file, true when more may come.
/// Throws SystemError.
bool readToString(int fd, std::string& text);

/// Writes as much of `text` as a non-blocking descriptor takes, and removes that from its front. Throws
/// SystemError.
void writeFromString(int fd, std::string& text);

}  // namespace korva
