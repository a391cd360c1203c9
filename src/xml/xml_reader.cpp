// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_reader.h"

#include "commons/handle.h"
#include "xml/libxml_scope.h"

#include <libxml/parser.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace korva {
namespace {

constexpr int kOptions = XML_PARSE_NONET;

// libxml2's own limits stop nested general entities only. Measured with 2.9.14: 440 kB with one entity used
// in 20000 attribute values expand to 3.8 GB, and nested parameter entities keep the parser busy for hours.
void refuseDeclaration(void* context) {
    auto* parser = static_cast<xmlParserCtxtPtr>(context);
    xmlParserError(parser, "declarations of entities and attributes are not accepted\n");
    parser->wellFormed = 0;
    xmlStopParser(parser);
}

void refuseEntity(void* context, const xmlChar* /*name*/, int /*type*/, const xmlChar* /*publicId*/,
                  const xmlChar* /*systemId*/, xmlChar* /*content*/) {
    refuseDeclaration(context);
}

// A default value is found in every element, so it multiplies as an entity does.
void refuseAttribute(void* context, const xmlChar* /*element*/, const xmlChar* /*name*/, int /*type*/,
                     int /*kind*/, const xmlChar* /*defaultValue*/, xmlEnumerationPtr values) {
    xmlFreeEnumeration(values);  // a handler owns them
    refuseDeclaration(context);
}

class Parser {
  public:
    Parser() : context_(xmlNewParserCtxt()) {
        context_.get()->sax->entityDecl = &refuseEntity;
        context_.get()->sax->attributeDecl = &refuseAttribute;
    }

    std::shared_ptr<xmlDoc> parse(const std::string& text) {
        return own(xmlCtxtReadMemory(context_.get(), text.data(), static_cast<int>(text.size()), nullptr,
                                     nullptr, kOptions));
    }
    std::shared_ptr<xmlDoc> parse(int fd, const char* fileName) {
        return own(xmlCtxtReadFd(context_.get(), fd, fileName, nullptr, kOptions));
    }

  private:
    static std::shared_ptr<xmlDoc> own(xmlDocPtr doc) {
        return doc != nullptr ? std::shared_ptr<xmlDoc>(doc, &xmlFreeDoc) : nullptr;
    }

    Handle<xmlParserCtxtPtr, &xmlFreeParserCtxt> context_;
};

}  // namespace

std::shared_ptr<xmlDoc> parseXmlText(const std::string& text, std::string& messages) {
    if (text.size() > static_cast<std::string::size_type>(std::numeric_limits<int>::max())) {
        messages = "The text is too long\n";
        return nullptr;
    }
    const LibxmlScope libxml;
    std::shared_ptr<xmlDoc> doc = Parser().parse(text);
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
    std::shared_ptr<xmlDoc> doc = Parser().parse(fd, fileName);
    ::close(fd);
    messages = libxml.messages();
    return doc;
}

}  // namespace korva
