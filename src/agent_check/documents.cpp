// SPDX-License-Identifier: Apache-2.0
#include "agent_check/documents.h"

#include "xml/xml_scan.h"
#include "xml/xml_wrap.h"

namespace korva::agent_check {
namespace {

constexpr std::string_view kDeclaration = "<?xml";
constexpr std::string_view kRefusal = "are not accepted";  // in the messages of XmlParser
constexpr const char* kNothing = "it is empty";

class Unread : public XmlContentSink {
  public:
    void startElement(int /*depth*/, std::string_view /*name*/, const XmlAttributes& /*all*/) override {}
    void text(int /*depth*/, std::string_view /*piece*/) override {}
    void endElement(int /*depth*/) override {}
};

class ChildText : public XmlContentSink {
  public:
    ChildText(const std::string& root, const std::string& child) : root_(root), child_(child) {}

    void startElement(int depth, std::string_view name, const XmlAttributes& /*all*/) override {
        if (depth == 0) {
            isRoot_ = name == root_;
        } else if (depth == 1) {
            isChild_ = isRoot_ && !found && name == child_;
            if (isChild_) {
                found = "";
            }
        }
    }
    void text(int depth, std::string_view piece) override {
        if (depth == 1 && isChild_) {
            *found += piece;
        }
    }
    void endElement(int depth) override { isChild_ = isChild_ && depth != 1; }

    std::optional<std::string> found;

  private:
    const std::string& root_;
    const std::string& child_;
    bool isRoot_ = false;
    bool isChild_ = false;
};

}  // namespace

std::string faultOfText(const std::string& text) {
    if (text.empty()) {
        return kNothing;
    }
    Unread sink;
    std::string messages;
    return scanXmlText(text, sink, messages) ? "" : "it is not well-formed: " + messages;
}

std::string faultOfFile(const std::string& path) {
    try {
        const tXmlDocument document(path.c_str());
        return {};
    } catch (const ExTraceable& error) {
        return error.what();
    }
}

std::optional<std::size_t> noiseBefore(const std::string& text, const std::string& root) {
    constexpr int kMostPlaces = 100;  // at which the document may begin
    const std::string start = "<" + root;
    const auto beginsAt = [&](std::size_t at) {
        return text.compare(at, start.size(), start) == 0 ||
               text.compare(at, kDeclaration.size(), kDeclaration) == 0;
    };
    const std::size_t first = text.find('<');
    const std::string fault = first == std::string::npos ? "" : faultOfText(text);
    // A parser that refuses what a document declares has found nothing wrong before it.
    if (fault.empty() || fault.find(kRefusal) != std::string::npos) {
        return std::nullopt;
    }
    int places = 0;
    for (std::size_t at = first; at != std::string::npos && places < kMostPlaces;
         at = text.find('<', at + 1)) {
        if (at > 0 && beginsAt(at)) {
            ++places;
            if (faultOfText(text.substr(at)).empty()) {
                return at;
            }
        }
    }
    return std::nullopt;
}

std::optional<std::string> childOfRoot(const std::string& text, const std::string& root,
                                       const std::string& child) {
    ChildText sink(root, child);
    std::string messages;
    return scanXmlText(text, sink, messages) ? sink.found : std::nullopt;
}

}  // namespace korva::agent_check
