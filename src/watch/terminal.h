// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "watch/frame.h"

#include <memory>

namespace korva {

/// The terminal of standard output, taken over for a whole screen until the end of this object.
class Terminal {
  public:
    /// Null when the terminal is of a type that is not known or cannot show a whole screen.
    static std::unique_ptr<Terminal> take();
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;
    /// Gives the terminal back as it was.
    ~Terminal();

    /// After a change of the size, the new one as soon as pressedKey() has been asked.
    FrameSize size() const;
    void show(const Frame& frame);
    /// A key that was pressed since the last call, or a negative number.
    int pressedKey();

  private:
    Terminal() = default;
};

}  // namespace korva
