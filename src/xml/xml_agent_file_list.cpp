// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_agent_file_list.h"

#include <boost/lexical_cast.hpp>

namespace korva {
namespace {

/// Throws boost::bad_lexical_cast for anything but a decimal number, and for one that is too large.
std::uint64_t toUnsigned(const std::string& text) {
    if (text.starts_with('-')) {  // lexical_cast would wrap it around
        throw boost::bad_lexical_cast(typeid(std::string), typeid(std::uint64_t));
    }
    return boost::lexical_cast<std::uint64_t>(text);
}

}  // namespace

std::unique_ptr<AgentFileList> getFileList(const std::string& content) {
    return std::make_unique<XmlAgentFileList>(content);
}

XmlAgentFileList::XmlAgentFileList(const std::string& content) : tXmlDvxDocument(content) {
    initFileDoc("contentlist");
    for (xmlNodePtr node = xmlFirstElementChild(root()); node != nullptr;
         node = xmlNextElementSibling(node)) {
        if (!stringEq(node->name, "file")) {
            continue;
        }
        DumpFile file;
        if (const std::optional<std::string> size = findAttribute(node, "size")) {
            file.size = boost::lexical_cast<std::int64_t>(*size);
            file.hasSize = true;
        }
        file.md5 = findAttribute(node, "md5sum").value_or("");
        file.name = getNodeText(node);
        files_.push_back(std::move(file));
    }
}

std::uint64_t XmlAgentFileList::getTotalSize() const {
    return toUnsigned(getAttribute(root(), "size"));
}

std::uint64_t XmlAgentFileList::getUnpackedSize() const {
    return toUnsigned(getAttribute(root(), "unpacked"));
}

}  // namespace korva
