// SPDX-License-Identifier: Apache-2.0
#include "watch/session_documents.h"

#include "xml/xml_parse.h"
#include "xml/xml_wrap.h"

#include <algorithm>
#include <charconv>

namespace korva {
namespace {

constexpr std::size_t kMostText = 8192;   // bytes of one text
constexpr std::size_t kMostChains = 100;  // of a result
constexpr std::size_t kMostValues = 16;   // of an unknown dumping status

std::string cut(const std::string& text) {
    return text.size() <= kMostText ? text : text.substr(0, kMostText).append("...");
}

std::string nameOf(const xmlNode* node) {
    return cut(reinterpret_cast<const char*>(node->name));
}

std::string textOf(const xmlNode* node) {
    return node != nullptr ? cut(tXmlDvxDocument::getNodeText(node)) : "";
}

std::string attribute(const xmlNode* node, const char* name) {
    return node != nullptr ? cut(tXmlDvxDocument::findAttribute(node, name).value_or("")) : "";
}

std::optional<std::int64_t> number(const xmlNode* node, const char* name) {
    const std::string text = attribute(node, name);
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool isNumber = error == std::errc() && end == text.data() + text.size() && value >= 0;
    return isNumber ? std::optional(value) : std::nullopt;
}

bool isElement(const xmlNode* node, const char* name) {
    return node->type == XML_ELEMENT_NODE && tXmlDvxDocument::stringEq(node->name, name);
}

// The parser takes the name of the root from here; an empty text would be an error of the caller to it.
class SessionDocument : public tXmlDvxDocument {
  public:
    SessionDocument(const std::string& text, const std::string& rootName)
        : tXmlDvxDocument(text.empty() ? std::string(" ") : text) {
        initFileDoc(rootName);
    }
};

TransferStatus readTransfer(xmlNodePtr transfer) {
    TransferStatus status;
    status.speed = number(transfer, "speed");
    xmlNodePtr files = getXmlChild(transfer, "files");
    if (files == nullptr) {
        return status;
    }
    status.filesTotal = number(files, "total");
    status.filesLeft = number(files, "left");
    status.sizeTotal = number(files, "size-total");
    status.sizeLeft = number(files, "size-left");
    xmlNodePtr current = getXmlChild(files, "current-file");
    status.currentFile = textOf(current);
    status.currentSize = number(current, "size");
    status.currentSizeLeft = number(current, "size-left");
    return status;
}

DeploymentStatus readDeployment(xmlNodePtr root) {
    return {number(root, "total-accounts"), number(root, "total-domains"), number(root, "completed-accounts"),
            number(root, "completed-domains"), textOf(getXmlChild(root, "current-object"))};
}

// Counters of a deployment stay in all later documents, so any other state has precedence.
RunStatus::State stateOf(xmlNodePtr root) {
    if (getXmlChild(root, "idle") != nullptr) {
        return RunStatus::State::kIdle;
    }
    if (xmlNodePtr agent = getXmlChild(root, "agent")) {
        return attribute(agent, "action") == "deploy" ? RunStatus::State::kSending
                                                      : RunStatus::State::kWaiting;
    }
    if (xmlNodePtr transfer = getXmlChild(root, "transfer")) {
        return getXmlChild(transfer, "files") != nullptr ? RunStatus::State::kFetching
                                                         : RunStatus::State::kListing;
    }
    if (getXmlChild(root, "translate") != nullptr) {
        return RunStatus::State::kTranslating;
    }
    return tXmlDvxDocument::findAttribute(root, "total-accounts") ? RunStatus::State::kDeploying
                                                                  : RunStatus::State::kUnknown;
}

/// Collects the messages of a result document.
class MessageCollector {
  public:
    explicit MessageCollector(Outcome& outcome) : outcome_(outcome) {}

    // libxml2 limits how deep elements are nested.
    void collect(xmlNodePtr parent) {
        for (xmlNodePtr node = parent->children; node != nullptr; node = node->next) {
            if (isElement(node, "object")) {
                collect(node);
            } else if (isElement(node, "message")) {
                add(node);
            }
        }
    }

  private:
    void add(xmlNodePtr message) {
        if (outcome_.chains.size() == kMostChains) {
            ++outcome_.leftOut;
            return;
        }
        std::vector<ResultMessage> chain;
        for (; message != nullptr; message = getXmlChild(message, "message")) {
            chain.push_back({attribute(message, "code"), attribute(message, "id"),
                             attribute(message, "severity") == "warning",
                             textOf(getXmlChild(message, "description"))});
        }
        std::reverse(chain.begin(), chain.end());
        outcome_.chains.push_back(std::move(chain));
    }

    Outcome& outcome_;
};

std::string describe(const xmlNode* node) {
    std::string text = nameOf(node);
    std::size_t values = 0;
    for (const xmlAttr* each = node->properties; each != nullptr && values != kMostValues;
         each = each->next, ++values) {
        const std::string name = reinterpret_cast<const char*>(each->name);
        text.append(" ").append(cut(name)).append("=").append(attribute(node, name.c_str()));
    }
    const std::string content = textOf(node);
    return cut(content.empty() ? text : text + ": " + content);
}

}  // namespace

bool isActive(const RunStatus& status) {
    return status.state != RunStatus::State::kUnknown && status.state != RunStatus::State::kIdle;
}

bool isTransfer(const RunStatus& status) {
    return status.state == RunStatus::State::kListing || status.state == RunStatus::State::kFetching;
}

RunStatus parseRunStatus(const std::string& text) {
    const SessionDocument document(text, "migration-status");
    xmlNodePtr root = document.root();
    RunStatus status;
    status.state = stateOf(root);
    xmlNodePtr agent = getXmlChild(root, "agent");
    xmlNodePtr transfer = getXmlChild(root, "transfer");
    if (xmlNodePtr withHost = agent != nullptr ? agent : transfer) {
        status.host = textOf(getXmlChild(withHost, "host"));
    }
    if (isTransfer(status)) {
        status.transfer = readTransfer(transfer);
    }
    if (status.state == RunStatus::State::kDeploying) {
        status.deployment = readDeployment(root);
    }
    return status;
}

Outcome parseOutcome(const std::string& text) {
    const SessionDocument document(text, "execution-result");
    Outcome outcome;
    outcome.success = attribute(document.root(), "status") == "success";
    MessageCollector(outcome).collect(document.root());
    return outcome;
}

DumperStatus parseDumperStatus(const std::string& text) {
    const tXmlDvxDocument document(text.empty() ? std::string(" ") : text);
    DumperStatus status;
    xmlNodePtr root = xmlDocGetRootElement(document.doc().get());
    if (root == nullptr) {
        return status;
    }
    xmlNodePtr state = xmlFirstElementChild(root);
    if (state == nullptr || !isElement(root, "dumping-status")) {
        status.message = describe(state != nullptr ? state : root);
        return status;
    }
    status.state = isElement(state, "dumping")    ? DumperStatus::State::kDumping
                   : isElement(state, "finished") ? DumperStatus::State::kFinished
                   : isElement(state, "failed")   ? DumperStatus::State::kFailed
                                                  : DumperStatus::State::kOther;
    status.total = number(state, "total");
    status.left = number(state, "left");
    status.files = number(state, "files");
    status.bytes = number(state, "bytes");
    status.current = attribute(state, "current");
    status.message =
        status.state == DumperStatus::State::kOther ? describe(state) : attribute(state, "message");
    return status;
}

}  // namespace korva
