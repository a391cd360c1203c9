// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korva {

/// The attributes of an element that are in no name space, with their values.
class XmlAttributes {
  public:
    void add(std::string name, std::string value) {
        attributes_.emplace_back(std::move(name), std::move(value));
    }
    std::optional<std::string> find(std::string_view name) const;

  private:
    std::vector<std::pair<std::string, std::string>> attributes_;
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
/// twenty times the memory. False when it is refused or not well-formed; what `sink` got by then counts for
/// nothing. Passes on what `sink` throws.
bool scanXmlText(const std::string& text, XmlContentSink& sink, std::string& messages);

}  // namespace korva
