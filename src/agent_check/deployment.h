// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "agent_check/login.h"
#include "agent_check/report.h"

#include <filesystem>
#include <string>
#include <vector>

namespace korva::agent_check {

/// A directory for this account alone, by a path without links. It is removed with everything in it, whatever
/// modes that has got, unless it is to be kept.
class ThrowAwayDirectory {
  public:
    /// In TMPDIR, or /tmp. Throws SystemError; std::runtime_error where a path in it is none that an agent
    /// directory can have.
    explicit ThrowAwayDirectory(bool isKept);
    ThrowAwayDirectory(const ThrowAwayDirectory&) = delete;
    ThrowAwayDirectory& operator=(const ThrowAwayDirectory&) = delete;
    /// Says on standard error what it cannot remove.
    ~ThrowAwayDirectory();

    const std::string& path() const { return path_; }

  private:
    std::string path_;
    bool isKept_;
};

/// The agent directory, as the program would make it on a source host.
class Deployment {
  public:
    Deployment(std::string directory, const Login& login) : directory_(std::move(directory)), login_(login) {}

    const std::string& directory() const { return directory_; }

    /// Copies the shared files and then those of the agent. Tells of what does not arrive.
    void make(const std::filesystem::path& shared, const std::filesystem::path& agent, Report& report);

    /// Files that were executable before they were sent, but for `entryPoint`.
    std::vector<std::string> executables(const std::string& entryPoint) const;
    /// Makes them executable, or as they have arrived.
    void setExecutable(const std::vector<std::string>& paths, bool executable) const;

  private:
    void send(const std::filesystem::path& root, Findings& findings);
    void sendFile(const std::filesystem::path& from, const std::string& to);

    std::string directory_;
    const Login& login_;
    std::vector<std::string> executables_;
};

/// Whether `path` is `top` or below it, by their names alone: links are not followed.
bool isWithin(const std::filesystem::path& path, const std::filesystem::path& top);

/// Whether the name `relative` of a directory stands in that directory or below when all links on the way are
/// followed. What the name itself leads to does not matter. `directory` is a path without links: where one
/// has taken its place since, nothing lies below it.
bool liesBelow(const std::string& directory, const std::string& relative);

/// Judges symbolic links and what is neither a file nor a directory, in the agent and in the shared files.
void checkTrees(const std::filesystem::path& shared, const std::filesystem::path& agent, Report& report);

}  // namespace korva::agent_check
