// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_agent_file_list.h"

#include "xml/xml_scan.h"

#include <boost/lexical_cast.hpp>

#include <optional>
#include <string_view>
#include <utility>

namespace korva {
namespace {

constexpr const char* kSourceName = "./xml_wrap";

constexpr const char* kTotalSize = "size";
constexpr const char* kUnpackedSize = "unpacked";

/// Throws boost::bad_lexical_cast for anything but a decimal number, and for one that is too large.
std::uint64_t toUnsigned(const std::string& text) {
    if (text.starts_with('-')) {  // lexical_cast would wrap it around
        throw boost::bad_lexical_cast(typeid(std::string), typeid(std::uint64_t));
    }
    return boost::lexical_cast<std::uint64_t>(text);
}

constexpr std::size_t kMostFiles = 500'000;

/// Takes the entries of a list from the text, so that no tree of it is ever held.
class ListReader : public XmlContentSink {
  public:
    void startElement(int depth, std::string_view name, const XmlAttributes& attributes) override {
        if (depth == 0) {
            rootName = name;
            totalSize = attributes.find(kTotalSize);
            unpackedSize = attributes.find(kUnpackedSize);
        } else if (depth == 1 && name == "file") {
            addFile(attributes);
            inFile_ = true;
        }
    }

    void text(int depth, std::string_view piece) override {
        if (depth == 1 && inFile_) {
            files.back().name += piece;
        }
    }

    void endElement(int depth) override { inFile_ = inFile_ && depth != 1; }

    std::string rootName;
    std::optional<std::string> totalSize;
    std::optional<std::string> unpackedSize;
    std::vector<DumpFile> files;
    bool hasWrongNumber = false;  // as the size of a file

  private:
    void addFile(const XmlAttributes& attributes) {
        if (files.size() == kMostFiles) {
            throw KORVA_EXC(tError_WrongContent) %
                ("The content list names more than " + std::to_string(kMostFiles) + " files.");
        }
        DumpFile& file = files.emplace_back();
        if (const std::optional<std::string> size = attributes.find("size")) {
            hasWrongNumber |= !boost::conversion::try_lexical_convert(*size, file.size);
            file.hasSize = true;
        }
        file.md5 = attributes.find("md5sum").value_or("");
    }

    bool inFile_ = false;
};

}  // namespace

std::unique_ptr<AgentFileList> getFileList(const std::string& content) {
    return std::make_unique<XmlAgentFileList>(content);
}

XmlAgentFileList::XmlAgentFileList(const std::string& content) {
    if (content.empty()) {
        throw KORVA_EXC(AssertionFailed) % "content.size()";
    }
    ListReader reader;
    std::string messages;
    if (!scanXmlText(content, reader, messages)) {
        throw KORVA_EXC(tError_ParseFile) % "in memory" % messages;
    }
    initNewDoc(reader.rootName);
    for (const auto& [name, value] :
         {std::pair(kTotalSize, reader.totalSize), std::pair(kUnpackedSize, reader.unpackedSize)}) {
        if (value) {
            addAttribute(root(), name, *value);
        }
    }
    initFileDoc("contentlist");
    if (reader.hasWrongNumber) {
        throw boost::bad_lexical_cast(typeid(std::string), typeid(std::int64_t));
    }
    files_ = std::move(reader.files);
}

std::uint64_t XmlAgentFileList::getTotalSize() const {
    return toUnsigned(getAttribute(root(), kTotalSize));
}

std::uint64_t XmlAgentFileList::getUnpackedSize() const {
    return toUnsigned(getAttribute(root(), kUnpackedSize));
}

}  // namespace korva
