// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_parser.h"

#include <libxml/dict.h>

#include <algorithm>
#include <string_view>

namespace korva {
namespace {

constexpr int kOptions = XML_PARSE_NONET;

// libxml2's own limits stop nested general entities only. Measured with 2.9.14: 440 kB with one entity used
// in 20000 attribute values expand to 3.8 GB, and nested parameter entities keep the parser busy for hours.
void refuseDeclaration(void* context) {
    XmlParser::refuse(static_cast<xmlParserCtxtPtr>(context),
                      "declarations of entities and attributes are not accepted\n");
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

/// Gives libxml2 a text piece by piece. Between two of them, and so within a tag or declaration too, it looks
/// at what the parser holds: libxml2 compares each attribute of a tag with each other, at the end of the tag,
/// and needs up to 128 bytes for two bytes of a declaration. An excessive text ends early, whatever its
/// encoding.
class PiecewiseText {
  public:
    PiecewiseText(std::string_view text, xmlParserCtxtPtr parser) : rest_(text), parser_(parser) {}

    /// An xmlInputReadCallback. The parser's own input must not be touched in it.
    static int read(void* context, char* buffer, int size) {
        return static_cast<PiecewiseText*>(context)->next(buffer, static_cast<std::size_t>(size));
    }

    bool wasExcessive() const { return excessive_; }

  private:
    int next(char* buffer, std::size_t size) {
        excessive_ = excessive_ || isExcessive();
        if (excessive_) {
            return -1;
        }
        const std::size_t count = std::min({size, rest_.size(), kPiece});
        std::copy_n(rest_.data(), count, buffer);
        rest_.remove_prefix(count);
        if (parser_->inSubset != 0) {
            documentType_ += count;
        }
        return static_cast<int>(count);
    }

    bool isExcessive() const {
        constexpr int kFields = 5;  // that libxml2 has for an attribute
        constexpr int kGrowth = 2;  // the room for attributes is doubled each time
        return parser_->maxatts > kGrowth * kFields * XmlParser::kMostAttributes ||
               parser_->nsNr > 2 * XmlParser::kMostAttributes ||  // prefix and URI
               documentType_ > kLargestDocumentType || xmlDictGetUsage(parser_->dict) > kMostOfNames;
    }

    static constexpr std::size_t kPiece = 4096;                 // bytes, as all of these
    static constexpr std::size_t kLargestDocumentType = 65536;  // its internal subset
    static constexpr std::size_t kMostOfNames = std::size_t{1} << 20;

    std::string_view rest_;
    xmlParserCtxtPtr parser_;
    std::size_t documentType_ = 0;
    bool excessive_ = false;
};

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

void XmlParser::refuse(xmlParserCtxtPtr parser, const char* reason) {
    xmlParserError(parser, "%s", reason);
    parser->wellFormed = 0;
    xmlStopParser(parser);
}

xmlDocPtr XmlParser::parse(const std::string& text) {
    PiecewiseText pieces(text, context_.get());
    xmlDocPtr doc =
        xmlCtxtReadIO(context_.get(), &PiecewiseText::read, nullptr, &pieces, nullptr, nullptr, kOptions);
    if (pieces.wasExcessive()) {
        refuse(context_.get(), "attributes, names or declarations beyond all measure are not accepted\n");
        xmlFreeDoc(doc);
        return nullptr;
    }
    return doc;
}

xmlDocPtr XmlParser::parse(int fd, const char* fileName) {
    return xmlCtxtReadFd(context_.get(), fd, fileName, nullptr, kOptions);
}

bool XmlParser::hasConverted() const {
    const xmlParserInput* input = context_.get()->input;
    return input != nullptr && input->encoding != nullptr;
}

}  // namespace korva
