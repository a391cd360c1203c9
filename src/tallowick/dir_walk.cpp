// SPDX-License-Identifier: Apache-2.0
#include "tallowick/dir_walk.h"

#include <log4cpp/Category.hh>

#include <sys/stat.h>

#include <algorithm>
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
        for (const fs::directory_entry& entry : fs::directory_iterator(localDirectory)) {
            visit(entry, remoteDirectory + "/" + entry.path().filename().string());
        }
        path_.pop_back();
    }

  private:
    using Identity = std::pair<dev_t, ino_t>;

    static Identity identityOf(const fs::path& directory) {
        struct stat status {};
        if (stat(directory.c_str(), &status) != 0) {
            throw fs::filesystem_error("stat", directory, std::error_code(errno, std::generic_category()));
        }
        return {status.st_dev, status.st_ino};
    }

    bool isOnPath(const fs::path& directory) const {
        return std::find(path_.begin(), path_.end(), identityOf(directory)) != path_.end();
    }

    // A link that leads to itself leads nowhere, like one whose target is missing.
    static fs::file_status statusOf(const fs::directory_entry& entry) {
        std::error_code error;
        const fs::file_status status = entry.status(error);
        if (error && error != std::errc::too_many_symbolic_link_levels && !fs::status_known(status)) {
            throw fs::filesystem_error("stat", entry.path(), error);
        }
        return status;
    }

    void visit(const fs::directory_entry& entry, const std::string& remotePath) {
        const fs::file_status status = statusOf(entry);
        if (fs::is_directory(status)) {
            if (isOnPath(entry.path())) {
                category().warnStream()
                    << "skipping " << entry.path().string() << ": it leads back to itself";
            } else if (visitor_(entry.path(), remotePath)) {
                walk(entry.path(), remotePath);
            }
        } else if (fs::is_regular_file(status)) {
            visitor_(entry.path(), remotePath);
        } else {
            category().warnStream() << "skipping " << entry.path().string()
                                    << ": neither a file nor a directory";
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
