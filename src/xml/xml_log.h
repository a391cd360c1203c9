// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/log.h"
#include "xml/xml_wrap.h"

#include <string>
#include <vector>

namespace korva {

/// The result of a run as the document "execution-result" in the session directory. The file is written once,
/// at the end: after a crash there is none.
class XmlLog : public Log, public tXmlDvxDocument {
  public:
    /// Writes to the file `name` of the session, or to the session's default result file when it is empty. A
    /// file of that name is kept: it gets the first free of the endings ".1", ".2", … Throws CantRenameFile
    /// when it cannot. Needs theSession.
    explicit XmlLog(const std::string& name);
    /// Closes what was not closed; a failure only goes to theDebugLog.
    ~XmlLog() override;

    void setSuccess(bool success) override;
    void log(const ExTraceable& error) override;
    void pushObject(const std::string& name, const std::string& type) override;
    void popObject() override;
    std::size_t getDepth() const override;

    /// Completes the document and writes it, flushed to the disk. What another run in the same session has
    /// written under the name meanwhile is kept, too. To be called once: whether it succeeds or not, the
    /// document is not written again. Throws what saveToFileAtomically() throws.
    void close();

    const std::string& fileName() const { return fileName_; }

  protected:
    int putInPlace(const std::string& temporary, const std::string& path) const override;

  private:
    bool success_ = false;
    bool closed_ = false;
    xmlNodePtr current_ = nullptr;
    std::string fileName_;
    // One entry for the root and each open object: whether an error was logged in it.
    std::vector<bool> flags_{false};
};

}  // namespace korva
