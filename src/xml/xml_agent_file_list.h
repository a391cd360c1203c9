// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/agent_file_list.h"
#include "xml/xml_wrap.h"

#include <string>
#include <vector>

namespace korva {

/// A content list read from the document "contentlist", of which only the root is kept: a tree of a long list
/// would take hundreds of megabytes.
class XmlAgentFileList : public tXmlDvxDocument, public AgentFileList {
  public:
    /// Reads the list at once; throws as korva::getFileList() does.
    explicit XmlAgentFileList(const std::string& content);

    const std::vector<DumpFile>& getFileList() const override { return files_; }
    std::uint64_t getTotalSize() const override;
    std::uint64_t getUnpackedSize() const override;

  private:
    std::vector<DumpFile> files_;
};

}  // namespace korva
