// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libxml/xmlstring.h>

#include <optional>
#include <string>
#include <string_view>

namespace korva {

/// The attributes of an element, as libxml2 holds them while it tells of its start: they are not to be kept.
class XmlAttributes {
  public:
    /// As xmlSAXHandler::startElementNs gets them.
    XmlAttributes(const xmlChar** attributes, int count) : attributes_(attributes), count_(count) {}

    /// The value of the attribute of that name which is in no name space.
    std::optional<std::string> find(std::string_view name) const;

  private:
    const xmlChar** attributes_;
    int count_;
};

/// Gets what is in a document while it is being read. Names are without prefixes; the root is at depth 0.
class XmlContentSink {
  public:
    virtual ~XmlContentSink() = default;

    virtual void startElement(int depth, std::string_view name, const XmlAttributes& attributes) = 0;
    /// A piece of the text of the element that was started last at `depth` and has not ended.
    virtual void text(int depth, std::string_view piece) = 0;
    virtual void endElement(int depth) = 0;
};

/// Reads a document as parseXmlText() does, but keeps nothing of it: for texts of which a tree would take
/// twenty times the memory. One with more than XmlParser::kMostAttributes attributes in a tag is refused.
/// False when it is refused or not well-formed; what `sink` got by then counts for nothing. Passes on what
/// `sink` throws.
bool scanXmlText(const std::string& text, XmlContentSink& sink, std::string& messages);

}  // namespace korva
