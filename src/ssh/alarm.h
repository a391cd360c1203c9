// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace korva {

/// Work to be done between two passes of a running remote command.
class Alarm {
  public:
    virtual ~Alarm() = default;
    /// Runs at a point where the connection is free for other commands. What it throws ends the command.
    virtual void doAlarm() = 0;
};

}  // namespace korva
