// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_wrap.h"

#include "commons/filesystem.h"
#include "commons/system_error.h"
#include "commons/xml_text.h"
#include "utils/write_all.h"
#include "xml/libxml_scope.h"
#include "xml/panel_owner.h"
#include "xml/xml_parse.h"
#include "xml/xml_reader.h"

#include <libxml/encoding.h>
#include <libxml/xmlIO.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string_view>

namespace korva {
namespace {

constexpr const char* kSourceName = "./xml_wrap";

const xmlChar* toXml(const std::string& text) {
    return reinterpret_cast<const xmlChar*>(text.c_str());
}

std::string fromXml(const xmlChar* text) {
    return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

xmlNodePtr orThrow(xmlNodePtr node) {
    if (node == nullptr) {
        throw KORVA_EXC(tError_XmlInternal) % "#0002: Can not create new node";
    }
    return node;
}

/// xmlAddChild() for a node that is ours until it succeeds.
xmlNodePtr append(xmlNodePtr parent, xmlNodePtr child) {
    xmlNodePtr added = xmlAddChild(parent, orThrow(child));
    if (added == nullptr) {
        xmlFreeNode(child);
    }
    return orThrow(added);
}

void requireFileName(const char* filename) {
    if (filename == nullptr) {
        throw KORVA_EXC(AssertionFailed) % "filename != NULL";
    }
    if (*filename == '\0') {
        throw KORVA_EXC(AssertionFailed) % "*filename != 0";
    }
}

extern "C" int appendToString(void* context, const char* bytes, int count) {
    try {
        static_cast<std::string*>(context)->append(bytes, static_cast<std::string::size_type>(count));
        return count;
    } catch (...) {  // no exception may pass through libxml2; the save fails by this result
        return -1;
    }
}

const char* encodingOf(const xmlDoc& doc) {
    return reinterpret_cast<const char*>(doc.encoding);
}

/// Closes the buffer. False when not everything has gone through it.
bool dump(const std::shared_ptr<xmlDoc>& doc, xmlOutputBufferPtr buffer) {
    return xmlSaveFileTo(buffer, doc.get(), encodingOf(*doc)) >= 0;
}

bool serialise(const std::shared_ptr<xmlDoc>& doc, std::string& bytes) {
    const LibxmlScope libxml;
    xmlCharEncodingHandlerPtr encoder = nullptr;
    if (encodingOf(*doc) != nullptr) {
        encoder = xmlFindCharEncodingHandler(encodingOf(*doc));
        if (encoder == nullptr) {
            return false;
        }
    }
    return dump(doc, xmlOutputBufferCreateIO(&appendToString, nullptr, &bytes, encoder));
}

/// Removes what a longer file had before.
bool cutAt(int fd, std::size_t size) {
    struct stat status {};
    return ::fstat(fd, &status) == 0 &&
           (!S_ISREG(status.st_mode) || status.st_size == static_cast<off_t>(size) ||
            ::ftruncate(fd, static_cast<off_t>(size)) == 0);
}

bool writeFile(const char* fileName, const std::string& bytes) {
    // Others may be able to write in the directory: a link is not followed, nor the reader of a FIFO awaited.
    // Not O_TRUNC, even of an empty file: ext4 would flush it when it is closed.
    const int fd =
        ::open(fileName, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (fd == -1) {
        return false;
    }
    const bool written = writeAll(fd, bytes) == bytes.size() && cutAt(fd, bytes.size());
    return ::close(fd) == 0 && written;
}

/// Calls a function of commons/filesystem.h that flushes. The message of the error for a save has place for a
/// name only, so what the system says is the error that it includes.
void flush(void (*sync)(const std::string& path), const std::string& path) {
    try {
        sync(path);
    } catch (const SystemError& e) {
        const ExTraceable cause(boost::format("%1%") % e.what(), "SystemError");
        throw KORVA_EXC_CAUSED_BY(tError_SaveFile, cause) % path;
    }
}

}  // namespace

tXmlDocument::tXmlDocument() {
    createNewDoc();
}

tXmlDocument::tXmlDocument(const char* fileName) {
    readFromFile(fileName);
}

tXmlDocument::tXmlDocument(const std::filesystem::path& fileName) {
    readFromFile(fileName.c_str());
}

tXmlDocument::tXmlDocument(const std::string& content) {
    if (content.empty()) {
        throw KORVA_EXC(AssertionFailed) % "content.size()";
    }
    std::string messages;
    doc_ = parseXmlText(content, messages);
    if (doc_ == nullptr) {
        throw KORVA_EXC(tError_ParseFile) % "in memory" % messages;
    }
}

tXmlDocument::~tXmlDocument() = default;

void tXmlDocument::createNewDoc() {
    xmlDocPtr doc = xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0"));
    if (doc == nullptr) {
        throw KORVA_EXC(tError_XmlInternal) % "#0001: Can not create new XML document.";
    }
    doc_.reset(doc, &xmlFreeDoc);
}

void tXmlDocument::readFromFile(const char* fileName) {
    requireFileName(fileName);
    if (!check_input_file(fileName)) {
        throw KORVA_EXC(tError_WrongInputFile) % fileName;
    }
    std::string messages;
    std::shared_ptr<xmlDoc> doc = parseXmlFile(fileName, messages);
    if (doc == nullptr) {
        throw KORVA_EXC(tError_ParseFile) % fileName % messages;
    }
    doc_ = std::move(doc);
}

void tXmlDocument::saveToFile(const char* fileName) const {
    requireFileName(fileName);
    // Not xmlSaveFile(): whether it passes on a failure to write or close depends on its version.
    std::string bytes;
    if (!serialise(doc_, bytes) || !writeFile(fileName, bytes)) {
        throw KORVA_EXC(tError_SaveFile) % fileName;
    }
}

void tXmlDocument::saveToFile(const std::string& fileName) const {
    saveToFile(fileName.c_str());
}

void tXmlDocument::saveToStdout() const {
    saveToStream(std::cout);
}

void tXmlDocument::saveToFileAtomically(const std::filesystem::path& path, Durability durability) const {
    const std::string temporary = DVX_getTempFileName(path.parent_path().string(), path.filename().string());
    saveToFile(temporary);
    giveToPanel(temporary);
    if (durability == Durability::kFlushed) {
        // Before the rename, or a power failure could leave an empty file under the name.
        flush(&syncFile, temporary);
    }
    if (const int error = putInPlace(temporary, path.string()); error != 0) {
        throw KORVA_EXC(CantRenameFile) % temporary % path.string() % std::strerror(error);
    }
    if (durability == Durability::kFlushed) {
        flush(&syncDirectoryOf, path.string());
    }
}

int tXmlDocument::putInPlace(const std::string& temporary, const std::string& path) const {
    return std::rename(temporary.c_str(), path.c_str()) == 0 ? 0 : errno;
}

void tXmlDocument::saveToStream(std::ostream& stream) const {
    std::string bytes;
    if (!serialise(doc_, bytes) || !(stream << bytes << std::flush)) {
        throw KORVA_EXC(tError_SaveFile) % "stream";
    }
}

void tXmlDocument::saveToBuffer(xmlOutputBufferPtr outputBuffer) const {
    const LibxmlScope libxml;
    if (!dump(doc_, outputBuffer)) {
        throw KORVA_EXC(tError_SaveFile) % "buffer";
    }
}

void tXmlDvxDocument::initFileDoc(const std::string& rootName) {
    xmlNodePtr found = xmlDocGetRootElement(doc().get());
    if (found == nullptr) {
        throw KORVA_EXC(tError_EmptyDoc) % rootName;
    }
    if (!stringEq(found->name, rootName)) {
        throw KORVA_EXC(tError_WrongDoc) % rootName % fromXml(found->name);
    }
    root_ = found;
}

void tXmlDvxDocument::initNewDoc(const std::string& rootName) {
    root_ = orThrow(xmlNewDocNode(doc().get(), nullptr, toXml(rootName), nullptr));
    xmlDocSetRootElement(doc().get(), root_);
}

xmlNodePtr tXmlDvxDocument::newChild(xmlNodePtr parent, const std::string& name) {
    return append(parent, xmlNewDocNode(doc().get(), nullptr, toXml(name), nullptr));
}

xmlNodePtr tXmlDvxDocument::newTextChild(xmlNodePtr parent, const std::string& name,
                                         const std::string& text) {
    if (parent == nullptr) {
        return nullptr;
    }
    return orThrow(xmlNewTextChild(parent, nullptr, toXml(name), toXml(toXmlText(text))));
}

xmlNodePtr tXmlDvxDocument::newCDataBlock(xmlNodePtr parent, const std::string& text) {
    const std::string xmlText = toXmlText(text);
    return append(parent, xmlNewCDataBlock(doc().get(), toXml(xmlText), static_cast<int>(xmlText.size())));
}

xmlNodePtr tXmlDvxDocument::newText(xmlNodePtr parent, const std::string& text) {
    return append(parent, xmlNewDocText(doc().get(), toXml(toXmlText(text))));
}

void tXmlDvxDocument::addAttribute(xmlNodePtr node, const std::string& name, const std::string& value) {
    if (xmlSetProp(node, toXml(name), toXml(toXmlText(value))) == nullptr) {
        throw KORVA_EXC(tError_XmlInternal) % "#0002: Can not create new node";
    }
}

// Joined here: xmlNodeListGetString() takes quadratic time for many pieces. The parser has put entities in
// their places; a reference that is left is one to an entity that nobody declared, and stands for nothing.
std::string tXmlDvxDocument::getNodeText(const xmlNode* node) {
    std::string text;
    for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
        if (child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) {
            text += fromXml(child->content);
        }
    }
    return text;
}

// Not xmlGetNoNsProp(): an attribute that it finds no memory for looks like one that is not there.
std::optional<std::string> tXmlDvxDocument::findAttribute(const xmlNode* node, const std::string& name) {
    const xmlAttr* const attribute = xmlHasNsProp(node, toXml(name), nullptr);
    if (attribute == nullptr) {
        return std::nullopt;
    }
    return getNodeText(reinterpret_cast<const xmlNode*>(attribute));
}

std::string tXmlDvxDocument::getAttribute(const xmlNode* node, const std::string& name) {
    std::optional<std::string> value = findAttribute(node, name);
    if (!value) {
        throw KORVA_EXC(NoSuchAttribute) % fromXml(node->name) % name;
    }
    return *std::move(value);
}

xmlNodePtr tXmlDvxDocument::getRootNodeChild(const std::string& name) const {
    xmlNodePtr child = getXmlChild(root_, name);
    if (child == nullptr) {
        throw KORVA_EXC(tError_WrongContent) %
            ("Can not find '" + name + "' element in '" + fromXml(root_->name) + "' element.");
    }
    return child;
}

bool tXmlDvxDocument::stringEq(const xmlChar* xmlText, const std::string& string) {
    return xmlText != nullptr && string == reinterpret_cast<const char*>(xmlText);
}

}  // namespace korva
