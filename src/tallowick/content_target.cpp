// SPDX-License-Identifier: Apache-2.0
#include "tallowick/content_target.h"

#include "commons/filesystem.h"
#include "commons/regular_file.h"
#include "commons/session.h"
#include "commons/system_error.h"
#include "utils/accounts.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <filesystem>
#include <string_view>
#include <tuple>
#include <vector>

namespace korva {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kContentDirectoryMode = 0755;

// The names in a path, without those that lead nowhere.
std::vector<std::string> components(const std::string& path) {
    std::vector<std::string> names;
    boost::algorithm::split(names, path, boost::algorithm::is_any_of("/"));
    std::erase_if(names, [](const std::string& name) { return name.empty() || name == "."; });
    return names;
}

// A login shell such as bash expands "{a,b}" and "{1..3}", which a backslash in front does not quote.
bool holdsBraceExpression(std::string_view path) {
    const std::size_t open = path.find('{');
    if (open == std::string_view::npos) {
        return false;
    }
    const std::size_t separator = std::min(path.find(',', open), path.find("..", open));
    return separator != std::string_view::npos && path.find('}', separator) != std::string_view::npos;
}

bool isNameOfThisRun(std::string_view name) {
    constexpr std::array<std::string_view, 5> kNames = {
        "migration.status", "migration.log", "transfer.result", "dump-name", "migration-result-name"};
    constexpr std::string_view kPredecessor = "transfer.result.";
    return std::find(kNames.begin(), kNames.end(), name) != kNames.end() ||
           (name.size() > kPredecessor.size() && name.starts_with(kPredecessor) &&
            name.substr(kPredecessor.size()).find_first_not_of("0123456789") == std::string_view::npos);
}

Descriptor openDirectoryAt(const Descriptor& parent, const std::string& name) {
    return Descriptor(openat(parent.fd(), name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

}  // namespace

PanelAccount panelAccount() {
    PanelAccount account{};
    account.user = korva_ugid(kPanelAccount, &account.group);
    return account;
}

void make_content_dir(const std::string& path, const PanelAccount& owner) {
    make_dir(path, owner.user, owner.group, kContentDirectoryMode);
}

std::optional<std::string> ContentTarget::refusal(const std::string& listedPath) const {
    // No file has such a path. Its parts may be millions, each of them a directory to be made.
    if (listedPath.size() > PATH_MAX) {
        return "the path is longer than paths can be";
    }
    const std::vector<std::string> names = components(listedPath);
    const std::string last = lastComponent(listedPath);
    if (last.empty() || last == ".") {
        return "the path names no file";
    }
    if (std::find(names.begin(), names.end(), "..") != names.end()) {
        return "the path leads out of the directory";
    }
    if (holdsBraceExpression(listedPath)) {
        return "the path holds a brace expression";
    }
    if (isFileOfThisRun(names)) {
        return "the path is that of a file of this run";
    }
    return std::nullopt;
}

// Each part of the path counts: a directory made under such a name would be as bad.
bool ContentTarget::isFileOfThisRun(const std::vector<std::string>& names) const {
    fs::path parent;
    for (const std::string& name : names) {
        if (IncomingFile::isTemporaryName(name) || (isNameOfThisRun(name) && isSessionDirectory(parent))) {
            return true;
        }
        parent /= name;
    }
    return false;
}

bool ContentTarget::isSessionDirectory(const fs::path& relative) const {
    std::error_code failure;
    // What is missing so far may lead up again once it is made.
    fs::path directory = fs::weakly_canonical(directory_, failure);
    if (failure) {
        directory = directory_;
    }
    return fs::equivalent(directory / relative, theSession->getDir(), failure);
}

Descriptor ContentTarget::enterDirectoryOf(const std::string& listedPath) {
    make_content_dir(directory_, owner_);
    Descriptor current = openDirectory(directory_);
    std::vector<std::string> names = components(listedPath);
    names.pop_back();
    std::string entered;
    for (const std::string& name : names) {
        Descriptor next = openDirectoryAt(current, name);
        if (next.fd() < 0 && errno == ENOENT && makeDirectoryAt(current, name)) {
            next = openDirectoryAt(current, name);
        }
        if (next.fd() < 0) {
            throwSystemError(localPath(listedPath), errno);
        }
        current = std::move(next);
        entered += name + "/";
    }
    if (tidied_.insert(std::move(entered)).second) {
        IncomingFile::removeAbandoned(current);
    }
    return current;
}

// False with errno set when there is none afterwards.
bool ContentTarget::makeDirectoryAt(const Descriptor& parent, const std::string& name) const {
    if (mkdirat(parent.fd(), name.c_str(), kContentDirectoryMode) != 0) {
        return errno == EEXIST;
    }
    // A link that somebody has put in its place by now keeps its owner.
    std::ignore = fchownat(parent.fd(), name.c_str(), owner_.user, owner_.group, AT_SYMLINK_NOFOLLOW);
    return true;
}

std::string lastComponent(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace korva
