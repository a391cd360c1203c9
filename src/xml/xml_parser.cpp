// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_parser.h"

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

}  // namespace

XmlParser::XmlParser() : context_(xmlNewParserCtxt()) {
    context_.get()->sax->entityDecl = &refuseEntity;
    context_.get()->sax->attributeDecl = &refuseAttribute;
}

void XmlParser::keepNothing() {
    xmlSAXHandler& handler = *context_.get()->sax;
    handler.startElementNs = nullptr;
    handler.endElementNs = nullptr;
    handler.characters = nullptr;
    handler.ignorableWhitespace = nullptr;
    handler.cdataBlock = nullptr;
    handler.comment = nullptr;
    handler.processingInstruction = nullptr;
    handler.reference = nullptr;  // to an entity that nobody has declared
}

xmlDocPtr XmlParser::parse(const std::string& text) {
    return xmlCtxtReadMemory(context_.get(), text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                             kOptions);
}

xmlDocPtr XmlParser::parse(int fd, const char* fileName) {
    return xmlCtxtReadFd(context_.get(), fd, fileName, nullptr, kOptions);
}

bool XmlParser::hasConverted() const {
    const xmlParserInput* input = context_.get()->input;
    return input != nullptr && input->encoding != nullptr;
}

}  // namespace korva
