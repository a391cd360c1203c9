// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <string>

namespace korva {

KORVA_ERROR_TAG(UnableToCreateSession, "Unable to create session: %1%")

/// The session directory and the names of the files in it. The path is kept as it is given: with a "/" at its
/// end the names below contain two in a row.
class SessionFiles {
  public:
    /// Creates the directory, its missing parents and its subdirectory "archives" (owner root, mode 0750);
    /// what exists is used as it is. Throws UnableToCreateSession.
    explicit SessionFiles(std::string sessionPath);

    std::string getDir() const;
    std::string getScoutResultFileName() const;
    std::string getStatusFileName() const;
    std::string getResultFileName() const;
    std::string getDeploymentStatusFileName() const;
    std::string getDumpFileName() const;
    std::string getKorvaDumpFileName() const;
    std::string getLogFileName() const;
    std::string getDumpingStatusFileName() const;
    /// Where content files go: the session directory itself.
    std::string getCidFilesDir() const;
    std::string getCidFile(const std::string& name) const;

    /// Removes the directory with everything in it. Throws std::filesystem::filesystem_error.
    void remove() const;

  private:
    std::string sessionPath_;
};

/// The session of this process, null when none is open.
extern SessionFiles* theSession;

/// Opens theSession for its own lifetime.
class SessionLifetimeController {
  public:
    explicit SessionLifetimeController(const std::string& sessionPath);
    SessionLifetimeController(const SessionLifetimeController&) = delete;
    SessionLifetimeController& operator=(const SessionLifetimeController&) = delete;
    ~SessionLifetimeController();
};

}  // namespace korva
