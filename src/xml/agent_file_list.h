// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace korva {

/// One entry of a content list.
struct DumpFile {
    std::string name;       ///< as the agent wrote it, relative to the agent's directory
    std::int64_t size = 0;  ///< bytes; 0 also where the list gives none
    std::string md5;        ///< hex digits as the agent wrote them; empty where the list gives none
    bool hasSize = false;   ///< whether the list gives a size
};

/// The content files that a dump on the source host refers to.
class AgentFileList {
  public:
    virtual ~AgentFileList() = default;

    /// In the order of the document.
    virtual const std::vector<DumpFile>& getFileList() const = 0;
    /// Bytes of all files together. Throws NoSuchAttribute when the list does not tell, and
    /// boost::bad_lexical_cast when what it tells is no number.
    virtual std::uint64_t getTotalSize() const = 0;
    /// Bytes that the files take once they are unpacked. Throws as getTotalSize() does.
    virtual std::uint64_t getUnpackedSize() const = 0;
};

/// Reads the text of a content list, as an agent prints it; the text is foreign and not trusted. Throws
/// AssertionFailed for an empty text, tError_ParseFile for one that is not well-formed,
/// declares entities or attributes, or has more than 1000 attributes in a tag, tError_WrongDoc for another
/// document, tError_WrongContent for more than 500,000 files, and boost::bad_lexical_cast for a file size
/// that is no number.
std::unique_ptr<AgentFileList> getFileList(const std::string& content);

}  // namespace korva
