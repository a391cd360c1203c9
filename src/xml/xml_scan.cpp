// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_scan.h"

#include "xml/libxml_scope.h"
#include "xml/xml_parser.h"

#include <boost/algorithm/string/replace.hpp>

#include <algorithm>
#include <cstddef>
#include <exception>

namespace korva {
namespace {

std::string_view viewOf(const xmlChar* text) {
    return reinterpret_cast<const char*>(text);
}

// Without a tree to build, libxml2 leaves one reference in the values that it has read, that of an ampersand.
std::string valueOf(const xmlChar* begin, const xmlChar* end) {
    const std::string_view value(reinterpret_cast<const char*>(begin), static_cast<std::size_t>(end - begin));
    return boost::algorithm::replace_all_copy(std::string(value), "&#38;", "&");
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
        xmlFreeDoc(parser_.parse(text));
        if (failure_) {
            std::rethrow_exception(failure_);
        }
        return parser_.get()->wellFormed != 0;
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
                             const xmlChar* /*uri*/, int /*namespaceCount*/, const xmlChar** /*namespaces*/,
                             int attributeCount, int /*defaultedCount*/, const xmlChar** attributes) {
        Scan& scan = of(context);
        scan.guarded([&] {
            constexpr std::ptrdiff_t kFields = 5;  // name, prefix, URI, begin and end of the value
            XmlAttributes own;
            for (const xmlChar** each = attributes; each != attributes + attributeCount * kFields;
                 each += kFields) {
                if (each[1] == nullptr) {
                    own.add(std::string(viewOf(each[0])), valueOf(each[3], each[4]));
                }
            }
            scan.sink_.startElement(scan.depth_++, viewOf(name), own);
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
    const auto found = std::find_if(attributes_.begin(), attributes_.end(),
                                    [name](const auto& attribute) { return attribute.first == name; });
    return found != attributes_.end() ? std::optional(found->second) : std::nullopt;
}

bool scanXmlText(const std::string& text, XmlContentSink& sink, std::string& messages) {
    const LibxmlScope libxml;
    const bool whole = Scan(sink).read(text);
    messages = libxml.messages();
    return whole;
}

}  // namespace korva
