// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libxml/xmlerror.h>

#include <string>

namespace korva {

/// Collects libxml2's messages while it lives; without it libxml2 prints them on standard error. Scopes do
/// not nest: both the generic and the structured error function are process-wide.
class LibxmlScope {
  public:
    LibxmlScope();
    LibxmlScope(const LibxmlScope&) = delete;
    LibxmlScope& operator=(const LibxmlScope&) = delete;
    /// Puts libxml2's own generic error function back.
    ~LibxmlScope();

    /// All messages so far, in order.
    const std::string& messages() const { return messages_; }

    /// Whether libxml2 has found no memory for something. It may have left that out, a text or a node of a
    /// set, and have gone on as if nothing had happened.
    static bool hasLackedMemory();

  private:
    std::string messages_;
    xmlStructuredErrorFunc structuredBefore_;
    void* structuredContextBefore_;
};

}  // namespace korva
