// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_scan.h"

#include "xml/libxml_scope.h"
#include "xml/xml_parser.h"

#include <cstddef>
#include <exception>

namespace korva {
namespace {

std::string_view viewOf(const xmlChar* text) {
    return reinterpret_cast<const char*>(text);
}

// Without a tree to build, libxml2 leaves one reference in the values that it has read, that of an ampersand.
std::string valueOf(const xmlChar* begin, const xmlChar* end) {
    constexpr std::string_view kReference = "&#38;";
    std::string_view rest(reinterpret_cast<const char*>(begin), static_cast<std::size_t>(end - begin));
    std::string value;
    for (std::size_t at = rest.find(kReference); at != std::string_view::npos; at = rest.find(kReference)) {
        value.append(rest.substr(0, at)).append("&");
        rest.remove_prefix(at + kReference.size());
    }
    return value.append(rest);
}

/// libxml2's parser with callbacks of ours in the place of those that build the tree.
class Scan {
  public:
    explicit Scan(XmlContentSink& sink) : sink_(sink) {
        parser_.keepNothing();
        parser_.get()->_private = this;
        xmlSAXHandler& handler = *parser_.get()->sax;
        handler.startElementNs = &startElement;
        handler.endElementNs = &endElement;
        handler.characters = &characters;
        handler.ignorableWhitespace = &characters;
        handler.cdataBlock = &characters;
    }

    bool read(const std::string& text) {
        xmlDocPtr doc = parser_.parse(text);
        xmlFreeDoc(doc);
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        return doc != nullptr;
    }

  private:
    static Scan& of(void* context) {
        return *static_cast<Scan*>(static_cast<xmlParserCtxtPtr>(context)->_private);
    }

    /// No exception may pass through libxml2.
    template <typename Body>
    void guarded(Body body) {
        try {
            if (!failure_) {
                body();
            }
        } catch (...) {
            failure_ = std::current_exception();
            xmlStopParser(parser_.get());
        }
    }

    static void startElement(void* context, const xmlChar* name, const xmlChar* /*prefix*/,
                             const xmlChar* /*uri*/, int namespaceCount, const xmlChar** /*namespaces*/,
                             int attributeCount, int /*defaultedCount*/, const xmlChar** attributes) {
        Scan& scan = of(context);
        if (attributeCount > XmlParser::kMostAttributes - namespaceCount) {
            XmlParser::refuse(scan.parser_.get(), "tags with that many attributes are not accepted\n");
            return;
        }
        scan.guarded([&] {
            scan.sink_.startElement(scan.depth_++, viewOf(name), {attributes, attributeCount});
        });
    }

    static void endElement(void* context, const xmlChar* /*name*/, const xmlChar* /*prefix*/,
                           const xmlChar* /*uri*/) {
        Scan& scan = of(context);
        scan.guarded([&] { scan.sink_.endElement(--scan.depth_); });
    }

    static void characters(void* context, const xmlChar* text, int size) {
        Scan& scan = of(context);
        scan.guarded([&] {
            scan.sink_.text(scan.depth_ - 1,
                            {reinterpret_cast<const char*>(text), static_cast<std::size_t>(size)});
        });
    }

    XmlContentSink& sink_;
    XmlParser parser_;
    int depth_ = 0;
    std::exception_ptr failure_;
};

}  // namespace

std::optional<std::string> XmlAttributes::find(std::string_view name) const {
    constexpr std::ptrdiff_t kFields = 5;  // name, prefix, URI, begin and end of the value
    const xmlChar** const end = attributes_ + count_ * kFields;
    for (const xmlChar** each = attributes_; each != end; each += kFields) {
        if (each[1] == nullptr && viewOf(each[0]) == name) {
            return valueOf(each[3], each[4]);
        }
    }
    return std::nullopt;
}

bool scanXmlText(const std::string& text, XmlContentSink& sink, std::string& messages) {
    const LibxmlScope libxml;
    const bool whole = Scan(sink).read(text);
    messages = libxml.messages();
    return whole;
}

}  // namespace korva
