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

    void begin() override { hasCome_ = isGone_ = wasCreated_ = false; }
    int fd() const override { return inotify_.fd(); }
    void read() override;

    /// Looks once more, after the end.
    void look();

    bool wasSeen() const { return wasSeen_; }
    /// Whether bytes were written into the file under its name.
    bool wasWrittenInPlace() const { return wasWrittenInPlace_; }
    /// Whether there was none between two. That there is none at the beginning and at the end is no fault.
    bool wasMissing() const { return wasMissing_; }
    bool wasUnreadable() const { return wasUnreadable_; }
    /// Why a whole file could not be read from it; empty where it could, and where it was written in place.
    const std::string& fault() const { return fault_; }

  private:
    void note(std::uint32_t mask);

    std::string directory_;
    const Login& login_;
    Descriptor inotify_;
    bool wasSeen_ = false;
    bool wasWrittenInPlace_ = false;
    bool wasCreated_ = false;  // under its name, by a link or to be written
    bool hasCome_ = false;     // since the beginning
    bool isGone_ = false;      // since then
    bool wasMissing_ = false;
    bool wasUnreadable_ = false;
    std::string fault_;
};

}  // namespace korva::agent_check
