// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_parse.h"

#include "xml/libxml_scope.h"

#include <libxml/xpathInternals.h>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <new>
#include <tuple>
#include <utility>

namespace korva {
namespace {

constexpr const char* kSourceName = "./xml_parse";

xmlXPathContextPtr newContext(xmlDocPtr doc, xmlNodePtr contextNode) {
    const LibxmlScope libxml;
    xmlXPathContextPtr context = xmlXPathNewContext(doc);
    if (context == nullptr) {
        throw KORVA_EXC(AssertionFailed) % "xpathCtx_.get() != NULL";
    }
    context->node = contextNode;
    return context;
}

using XPathParser = std::unique_ptr<xmlXPathParserContext, void (*)(xmlXPathParserContextPtr)>;

// Where libxml2 2.9.14 finds no memory for the stack of values it frees the parser twice: it is given the
// stack.
XPathParser newParser(const std::string& expression, xmlXPathContextPtr context) {
    constexpr int kValues = 10;  // it grows
    XPathParser parser(
        xmlXPathNewParserContext(reinterpret_cast<const xmlChar*>(expression.c_str()), context),
        &xmlXPathFreeParserContext);
    if (parser != nullptr) {
        parser->valueTab = static_cast<xmlXPathObjectPtr*>(xmlMalloc(kValues * sizeof(xmlXPathObjectPtr)));
        parser->valueMax = kValues;
    }
    if (parser == nullptr || parser->valueTab == nullptr) {
        throw std::bad_alloc();
    }
    return parser;
}

xmlXPathObjectPtr evaluate(const std::string& expression, xmlXPathContextPtr context) {
    const LibxmlScope libxml;
    const XPathParser parser = newParser(expression, context);
    xmlXPathEvalExpr(parser.get());
    if (parser->error != XPATH_EXPRESSION_OK) {
        throw KORVA_EXC(tError_XPath_CantEvaluate) % expression;
    }
    if (LibxmlScope::hasLackedMemory() || context->lastError.code == XML_ERR_NO_MEMORY) {
        throw std::bad_alloc();
    }
    xmlXPathObject* const result = valuePop(parser.get());
    if (result == nullptr) {
        throw KORVA_EXC(tError_XPath_CantEvaluate) % expression;
    }
    return result;
}

}  // namespace

// NOLINTNEXTLINE(cert-dcl50-cpp): libxml2 prescribes it
void libxmlErrorHandler(void* context, const char* format, ...) {
    constexpr std::size_t kMostMessages = 65536;  // a hostile document could be complained about without end
    auto& messages = *static_cast<std::string*>(context);
    if (messages.size() > kMostMessages) {
        return;
    }
    va_list arguments;
    va_list again;
    va_start(arguments, format);
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    if (length > 0) {
        try {
            std::string message(static_cast<std::string::size_type>(length), '\0');
            std::ignore = std::vsnprintf(message.data(), message.size() + 1, format, again);
            messages += message;
        } catch (...) {
            // Out of memory: no exception may pass through libxml2, and it reports the failure by its result.
        }
    }
    va_end(again);
    va_end(arguments);
}

xmlNodePtr getXmlChild(xmlNodePtr node, const std::string& name) {
    if (node == nullptr) {
        throw KORVA_EXC(AssertionFailed) % "node != NULL";
    }
    xmlNodePtr child = xmlFirstElementChild(node);
    while (child != nullptr && !tXmlDvxDocument::stringEq(child->name, name)) {
        child = xmlNextElementSibling(child);
    }
    return child;
}

tXPathExpr::tXPathExpr(const tXmlDocument& document, std::string expression, xmlNodePtr contextNode)
    : doc_(document.doc()),
      expression_(std::move(expression)),
      xpathCtx_(newContext(doc_.get(), contextNode)),
      result_(evaluate(expression_, xpathCtx_.get())) {}

std::string tXPathExpr::str() const {
    const LibxmlScope libxml;
    const std::unique_ptr<xmlChar, void (*)(void*)> text(xmlXPathCastToString(result_.get()), xmlFree);
    if (text == nullptr || LibxmlScope::hasLackedMemory()) {
        throw std::bad_alloc();
    }
    return reinterpret_cast<const char*>(text.get());
}

tXPathExpr::operator bool() const {
    return xmlXPathCastToBoolean(result_.get()) != 0;
}

int foreach_xmlnode(const tXPathExpr& expr, tXmlOperator& xmlOperator, tErrorFunc errorFunc) {
    if (expr.result()->type != XPATH_NODESET) {
        throw KORVA_EXC(tError_XPath_TypesMismatch) % expr.expression() % "nodeset";
    }
    xmlNodeSetPtr nodes = expr.result()->nodesetval;
    if (nodes == nullptr) {
        errorFunc(KORVA_EXC(tError_XmlInternal) %
                  ("Can not evaluate XPath expression: " + expr.expression()));
        return 0;
    }
    xmlXPathNodeSetSort(nodes);
    for (int index = 0; index < nodes->nodeNr; ++index) {
        try {
            xmlOperator.act(nodes->nodeTab[index]);
        } catch (const ExTraceable& error) {
            errorFunc(error);
        }
    }
    return 1;
}

}  // namespace korva
