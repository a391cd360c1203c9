// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/handle.h"

#include <libxml/parser.h>

#include <string>

namespace korva {

/// libxml2's parser for documents that may come from a hostile host: nothing outside of a document is loaded,
/// one that declares entities or attributes of its own is refused, and of a text one that takes time or
/// memory out of all proportion: with an immense number of attributes in a tag, of different names, or of
/// declarations. Needs a LibxmlScope for its messages.
class XmlParser {
  public:
    /// Of a tag, and of the name spaces that are declared at one place of a document.
    static constexpr int kMostAttributes = 1000;

    XmlParser();
    XmlParser(const XmlParser&) = delete;
    XmlParser& operator=(const XmlParser&) = delete;

    xmlParserCtxtPtr get() const { return context_.get(); }

    /// From now on documents have no content, which takes no memory then.
    void keepNothing();

    /// Ends the parsing of a document, from within one of libxml2's callbacks: it is not well-formed then.
    static void refuse(xmlParserCtxtPtr parser, const char* reason);

    /// Null for what is refused or not well-formed; the caller owns the document.
    xmlDocPtr parse(const std::string& text);
    xmlDocPtr parse(int fd, const char* fileName);

    /// Of what was parsed last: whether it named an encoding that had to be converted.
    bool hasConverted() const;

  private:
    Handle<xmlParserCtxtPtr, &xmlFreeParserCtxt> context_;
};

}  // namespace korva
