// SPDX-License-Identifier: Apache-2.0
#include "commons/session.h"

#include "commons/filesystem.h"
#include "utils/accounts.h"

#include <sys/types.h>

#include <filesystem>
#include <system_error>
#include <utility>

namespace korva {
namespace {

constexpr const char* kSourceName = "./session";
constexpr mode_t kDirectoryMode = 0750;

/// False also for what cannot be looked up.
bool exists(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::exists(path, ignored);
}

bool isDirectory(const std::string& path) {
    std::error_code ignored;
    return std::filesystem::is_directory(path, ignored);
}

void makeSessionDirectory(const std::string& path) {
    // The uid stands in for a group id: what reads sessions in the panel's name counts on that group.
    const gid_t group = get_user_id(kPanelAccount);
    make_dir(path, 0, group, kDirectoryMode);
}

}  // namespace

SessionFiles* theSession = nullptr;

SessionFiles::SessionFiles(std::string sessionPath) : sessionPath_(std::move(sessionPath)) {
    if (!exists(sessionPath_)) {
        makeSessionDirectory(sessionPath_);
    }
    if (!isDirectory(sessionPath_)) {
        throw KORVA_EXC(UnableToCreateSession) % "Unable to create session directory";
    }
    const std::string archives = std::filesystem::path(sessionPath_) / "archives";
    if (!exists(archives)) {
        makeSessionDirectory(archives);
    }
    // Only the session directory is asked for: no action here needs "archives".
    if (!isDirectory(sessionPath_)) {
        throw KORVA_EXC(UnableToCreateSession) % "Unable to create session archives directory";
    }
}

std::string SessionFiles::getDir() const {
    return sessionPath_;
}

std::string SessionFiles::getScoutResultFileName() const {
    return sessionPath_ + "/scout-result.xml";
}

std::string SessionFiles::getStatusFileName() const {
    return sessionPath_ + "/migration.status";
}

std::string SessionFiles::getResultFileName() const {
    return sessionPath_ + "/migration.result";
}

std::string SessionFiles::getDeploymentStatusFileName() const {
    return sessionPath_ + "/agent-deployment.status";
}

std::string SessionFiles::getDumpFileName() const {
    return sessionPath_ + "/dump.xml";
}

std::string SessionFiles::getKorvaDumpFileName() const {
    return sessionPath_ + "/restore.xml";
}

std::string SessionFiles::getLogFileName() const {
    return sessionPath_ + "/migration.log";
}

std::string SessionFiles::getDumpingStatusFileName() const {
    return sessionPath_ + "/" + "dumping-status.xml";
}

std::string SessionFiles::getCidFilesDir() const {
    return sessionPath_;
}

std::string SessionFiles::getCidFile(const std::string& name) const {
    return sessionPath_ + "/" + name;
}

void SessionFiles::remove() const {
    std::filesystem::remove_all(sessionPath_);
}

SessionLifetimeController::SessionLifetimeController(const std::string& sessionPath) {
    theSession = new SessionFiles(sessionPath);
}

SessionLifetimeController::~SessionLifetimeController() {
    delete theSession;
    theSession = nullptr;
}

}  // namespace korva
