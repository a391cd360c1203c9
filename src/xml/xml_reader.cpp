// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_reader.h"

#include "xml/libxml_scope.h"
#include "xml/xml_parser.h"

#include <libxml/encoding.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>

namespace korva {
namespace {

/// Null also for a document of which something may be missing.
std::shared_ptr<xmlDoc> own(xmlDocPtr doc) {
    if (doc == nullptr) {
        return nullptr;
    }
    std::shared_ptr<xmlDoc> owner(doc, &xmlFreeDoc);
    return LibxmlScope::hasLackedMemory() ? nullptr : owner;
}

}  // namespace

std::shared_ptr<xmlDoc> parseXmlText(const std::string& text, std::string& messages) {
    if (text.size() > static_cast<std::string::size_type>(std::numeric_limits<int>::max())) {
        messages = "The text is too long\n";
        return nullptr;
    }
    const LibxmlScope libxml;
    std::shared_ptr<xmlDoc> doc = own(XmlParser().parse(text));
    messages = libxml.messages();
    return doc;
}

std::shared_ptr<xmlDoc> parseXmlFile(const char* fileName, std::string& messages) {
    const int fd = ::open(fileName, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        messages = std::string(std::strerror(errno)) + "\n";
        return nullptr;
    }
    const LibxmlScope libxml;
    std::shared_ptr<xmlDoc> doc = own(XmlParser().parse(fd, fileName));
    ::close(fd);
    messages = libxml.messages();
    return doc;
}

bool isConverted(const std::string& text) {
    constexpr std::size_t kMark = 4;  // bytes that tell UTF-16, UTF-32 and EBCDIC
    const xmlCharEncoding encoding = xmlDetectCharEncoding(reinterpret_cast<const xmlChar*>(text.data()),
                                                           static_cast<int>(std::min(text.size(), kMark)));
    if (encoding != XML_CHAR_ENCODING_NONE && encoding != XML_CHAR_ENCODING_UTF8) {
        return true;
    }
    const LibxmlScope libxml;
    XmlParser parser;
    parser.keepNothing();
    xmlFreeDoc(parser.parse(text));
    return parser.hasConverted();
}

}  // namespace korva
