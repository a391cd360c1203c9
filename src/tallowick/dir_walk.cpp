// SPDX-License-Identifier: Apache-2.0
#include "tallowick/dir_walk.h"

#include "commons/handle.h"
#include "commons/log_line.h"

#include <log4cpp/Category.hh>

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

namespace korva {
namespace {

namespace fs = std::filesystem;

log4cpp::Category& category() {
    return log4cpp::Category::getInstance("k.SendAgentAction");
}

class TreeWalk {
  public:
    explicit TreeWalk(const DirWalkVisitor& visitor) : visitor_(visitor) {}

    void walk(const fs::path& localDirectory, const std::string& remoteDirectory) {
        path_.push_back(identityOf(localDirectory));
        const Handle<DIR*, &closedir> listing(openListing(localDirectory));
        while (const dirent* const entry = nextOf(listing.get(), localDirectory)) {
            const std::string name(static_cast<const char*>(entry->d_name));
            if (name != "." && name != "..") {
                std::string remotePath = remoteDirectory;
                remotePath.append("/").append(name);
                visit(localDirectory / name, remotePath);
            }
        }
        path_.pop_back();
    }

  private:
    using Identity = std::pair<dev_t, ino_t>;

    [[noreturn]] static void fail(const char* what, const fs::path& path) {
        throw fs::filesystem_error(what, path, std::error_code(errno, std::generic_category()));
    }

    static Identity identityOf(const fs::path& directory) {
        struct stat status {};
        if (stat(directory.c_str(), &status) != 0) {
            fail("stat", directory);
        }
        return {status.st_dev, status.st_ino};
    }

    // std::filesystem::directory_iterator ends the program where memory does not suffice for its next entry.
    static DIR* openListing(const fs::path& directory) {
        DIR* const listing = opendir(directory.c_str());
        if (listing == nullptr) {
            fail("opendir", directory);
        }
        return listing;
    }

    static const dirent* nextOf(DIR* listing, const fs::path& directory) {
        errno = 0;
        const dirent* const entry = readdir(listing);
        if (entry == nullptr && errno != 0) {
            fail("readdir", directory);
        }
        return entry;
    }

    bool isOnPath(const fs::path& directory) const {
        return std::find(path_.begin(), path_.end(), identityOf(directory)) != path_.end();
    }

    // A link that leads to itself leads nowhere, like one whose target is missing.
    static fs::file_status statusOf(const fs::path& entry) {
        std::error_code error;
        const fs::file_status status = fs::status(entry, error);
        if (error && error != std::errc::too_many_symbolic_link_levels && !fs::status_known(status)) {
            throw fs::filesystem_error("stat", entry, error);
        }
        return status;
    }

    void visit(const fs::path& entry, const std::string& remotePath) {
        const fs::file_status status = statusOf(entry);
        if (fs::is_directory(status)) {
            if (isOnPath(entry)) {
                warnLine(category()) << "skipping " << entry.string() << ": it leads back to itself";
            } else if (visitor_(entry, remotePath)) {
                walk(entry, remotePath);
            }
        } else if (fs::is_regular_file(status)) {
            visitor_(entry, remotePath);
        } else {
            warnLine(category()) << "skipping " << entry.string() << ": neither a file nor a directory";
        }
    }

    const DirWalkVisitor& visitor_;
    std::vector<Identity> path_;  // from the top to the directory being listed
};

}  // namespace

void recursive_dir_walk_sync(const fs::path& localTop, const std::string& remoteTop,
                             const DirWalkVisitor& visitor) {
    if (fs::is_directory(localTop) && visitor(localTop, remoteTop)) {
        TreeWalk(visitor).walk(localTop, remoteTop);
    }
}

}  // namespace korva
