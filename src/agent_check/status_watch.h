// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "agent_check/command_run.h"
#include "agent_check/login.h"
#include "commons/descriptor.h"

#include <cstdint>
#include <string>

namespace korva::agent_check {

/// Looks on while the dumper keeps dumping-status.xml.
class StatusWatch : public Watcher {
  public:
    /// Throws SystemError when the directory cannot be watched.
    StatusWatch(std::string directory, const Login& login);

    /// What was seen before counts no longer.
    void begin() override;
    int fd() const override { return inotify_.fd(); }
    void read() override;

    /// Looks once more, after the end.
    void look();

    bool wasSeen() const { return found_.wasSeen; }
    /// Whether bytes were written into the file under its name.
    bool wasWrittenInPlace() const { return found_.wasWrittenInPlace; }
    /// Whether there was none between two. That there is none at the beginning and at the end is no fault.
    bool wasMissing() const { return found_.wasMissing; }
    bool wasUnreadable() const { return found_.wasUnreadable; }
    /// Why a whole file could not be read from it; empty where it could, and where it was written in place.
    const std::string& fault() const { return found_.fault; }

  private:
    void note(std::uint32_t mask);

    struct Findings {
        bool wasSeen = false;
        bool wasWrittenInPlace = false;
        bool wasCreated = false;  // under its name, by a link or to be written
        bool hasCome = false;     // since the beginning
        bool isGone = false;      // since then
        bool wasMissing = false;
        bool wasUnreadable = false;
        std::string fault;
    };

    std::string directory_;
    const Login& login_;
    Descriptor inotify_;
    Findings found_;
};

}  // namespace korva::agent_check
