// SPDX-License-Identifier: Apache-2.0
#include "agent_check/deployment.h"

#include "commons/sh_quote.h"
#include "commons/system_error.h"
#include "commons/umask_scope.h"
#include "tallowick/agent_commands.h"
#include "tallowick/dir_walk.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <stdexcept>

namespace korva::agent_check {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kExecutable = S_IXUSR | S_IXGRP | S_IXOTH;
constexpr mode_t kArrived = 0644;  // what cat(1) makes under the usual umask

// What an agent has made may lack the rights to remove it.
void openAll(const fs::path& directory) {
    std::error_code failure;
    fs::permissions(directory, fs::perms::owner_all, fs::perm_options::add, failure);
    for (const auto& entry : fs::directory_iterator(directory, failure)) {
        if (entry.is_directory(failure) && !entry.is_symlink(failure)) {
            openAll(entry.path());
        }
    }
}

/// Looks through one of the two trees.
class TreeCheck {
  public:
    TreeCheck(const fs::path& top, std::vector<fs::path> trees, Findings& links, Findings& special)
        : top_(top), trees_(std::move(trees)), links_(links), special_(special) {}

    void check() {
        std::error_code failure;  // what cannot be listed is told when it cannot be sent
        for (fs::recursive_directory_iterator at(top_, failure), end; at != end; at.increment(failure)) {
            if (isDescription(top_, at->path())) {
                at.disable_recursion_pending();
            } else if (at->is_symlink(failure)) {
                checkLink(at->path());
            } else if (!at->is_directory(failure) && !at->is_regular_file(failure)) {
                special_.warning(relative(at->path()) + " is neither a file nor a directory and is not sent");
            }
        }
    }

  private:
    std::string relative(const fs::path& path) const { return path.lexically_relative(top_).string(); }

    void checkLink(const fs::path& link) {
        std::error_code failure;
        const fs::path target = fs::canonical(link, failure);
        if (failure) {
            links_.problem(relative(link) + " leads to nothing and is not sent");
        } else if (isWithin(fs::canonical(link.parent_path(), failure), target)) {
            links_.problem(relative(link) + " leads back to where it lies and is not sent");
        } else if (std::none_of(trees_.begin(), trees_.end(),
                                [&](const fs::path& tree) { return isWithin(target, tree); })) {
            links_.warning(relative(link) +
                           " leads out of the agent; what is there is sent: " + target.string());
        }
    }

    const fs::path& top_;
    std::vector<fs::path> trees_;
    Findings& links_;
    Findings& special_;
};

}  // namespace

// mkdtemp(3) closes it to all other accounts: what root is about to run must be out of their reach, the
// login's included, and a dump is nobody's business.
ThrowAwayDirectory::ThrowAwayDirectory(bool isKept)
    : path_((fs::canonical(fs::temp_directory_path()) / "tallowick-agent-check-XXXXXX").string()),
      isKept_(isKept) {
    if (!path_.starts_with('/') || sh_quote(path_) != path_) {
        throw std::runtime_error(
            "an agent directory must be an absolute path without blanks and what a shell "
            "gives a meaning; TMPDIR leads to " +
            path_);
    }
    if (mkdtemp(path_.data()) == nullptr) {
        throwSystemError(path_, errno);
    }
}

ThrowAwayDirectory::~ThrowAwayDirectory() {
    if (isKept_) {
        return;
    }
    std::error_code failure;
    fs::remove_all(path_, failure);
    if (failure) {
        openAll(path_);
        fs::remove_all(path_, failure);
    }
    if (failure) {
        std::cerr << "tallowick-agent-check: cannot remove " << path_ << ": " << failure.message() << '\n';
    }
}

void Deployment::make(const fs::path& shared, const fs::path& agent, Report& report) {
    constexpr mode_t kUsualUmask = 022;
    const UmaskScope umask(kUsualUmask);
    Findings findings(report, rules::kFiles);
    fs::create_directories(directory_);
    login_.own(directory_);
    send(shared, findings);
    send(agent, findings);
    findings.tell("all files can be sent");
}

void Deployment::send(const fs::path& root, Findings& findings) try {
    recursive_dir_walk_sync(root, directory_, [&](const fs::path& from, const std::string& to) {
        if (!fs::is_directory(from)) {
            try {
                sendFile(from, to);
            } catch (const SystemError& failure) {
                findings.problem(failure.what());
            }
            return true;
        }
        if (isDescription(root, from)) {
            return false;
        }
        std::error_code failure;
        fs::create_directories(to, failure);
        if (failure) {
            findings.problem(from.string() + ": " + failure.message());
            return false;
        }
        login_.own(to);
        return true;
    });
} catch (const fs::filesystem_error& failure) {
    findings.problem(failure.what());
}

void Deployment::sendFile(const fs::path& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    if (!in) {
        throwSystemError(from.string(), errno);
    }
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    if (in.peek() != std::ifstream::traits_type::eof()) {
        out << in.rdbuf();
    }
    out.close();
    if (in.bad() || !out) {
        throwSystemError(from.string() + " to " + to, errno);
    }
    login_.own(to);
    struct stat status {};
    if (stat(from.c_str(), &status) == 0 && (status.st_mode & kExecutable) != 0) {
        executables_.push_back(to);
    } else {
        std::erase(executables_, to);
    }
}

std::vector<std::string> Deployment::executables(const std::string& entryPoint) const {
    std::vector<std::string> found = executables_;
    std::error_code failure;
    const fs::path entry = fs::weakly_canonical(directory_ + "/" + entryPoint, failure);
    std::erase_if(found,
                  [&](const std::string& path) { return fs::weakly_canonical(path, failure) == entry; });
    return found;
}

void Deployment::setExecutable(const std::vector<std::string>& paths, bool executable) const {
    for (const std::string& path : paths) {
        chmod(path.c_str(), executable ? kArrived | kExecutable : kArrived);
    }
}

bool isWithin(const fs::path& path, const fs::path& top) {
    return std::mismatch(top.begin(), top.end(), path.begin(), path.end()).first == top.end();
}

bool liesBelow(const std::string& directory, const std::string& relative) {
    std::error_code failure;
    const fs::path parent = fs::canonical((fs::path(directory) / relative).parent_path(), failure);
    return !failure && isWithin(parent, directory);
}

void checkTrees(const fs::path& shared, const fs::path& agent, Report& report) {
    std::vector<fs::path> trees;
    for (const fs::path& tree : {shared, agent}) {
        std::error_code failure;
        const fs::path real = fs::canonical(tree, failure);
        if (!failure) {
            trees.push_back(real);
        }
    }
    Findings links(report, rules::kLinks);
    Findings special(report, rules::kSpecialFiles);
    for (const fs::path& tree : {shared, agent}) {
        TreeCheck(tree, trees, links, special).check();
    }
    links.tell("no symbolic link leads out of the agent or to nothing");
    special.tell("there are only files and directories");
}

}  // namespace korva::agent_check
