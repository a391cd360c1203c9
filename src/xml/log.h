// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <boost/format/format_fwd.hpp>

#include <cstddef>
#include <string>

namespace korva {

/// The result of a run as the panel reads it: whether it succeeded, and its errors.
class Log {
  public:
    virtual ~Log() = default;
    /// A run has failed until this says otherwise.
    virtual void setSuccess(bool success) = 0;
    virtual void log(const ExTraceable& error) = 0;
    /// What is logged from here to the matching popObject() belongs to this object.
    virtual void pushObject(const std::string& name, const std::string& type) = 0;
    /// Leaves no trace of an object in which nothing was logged. Throws NoParentNode when no object is open.
    virtual void popObject() = 0;
    /// The number of open objects.
    virtual std::size_t getDepth() const = 0;
};

/// The trace of a run for support staff.
class DebugLog {
  public:
    virtual ~DebugLog() = default;
    virtual void log(const std::string& text) = 0;
    virtual void log(const boost::format& text) = 0;
    virtual void log(const ExTraceable& error) = 0;
    virtual bool isVerboseMode() const = 0;
    virtual bool isDebugMode() const = 0;
};

/// The logs of this run, null while there are none. The scope objects that set them own what they point at.
extern Log* theLog;
extern DebugLog* theDebugLog;

}  // namespace korva
