// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/handle.h"
#include "xml/xml_wrap.h"

#include <libxml/xpath.h>

#include <memory>
#include <string>

namespace korva {

/// libxml2's generic error callback: appends the formatted message to the std::string at `context`, unless
/// that is longer than 64 KiB already.
void libxmlErrorHandler(void* context, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// The first element directly below `node` with that name, or null. Throws AssertionFailed for a null node.
xmlNodePtr getXmlChild(xmlNodePtr node, const std::string& name);

/// An evaluated XPath expression. Keeps the document alive.
class tXPathExpr {
  public:
    /// Throws tError_XPath_CantEvaluate, and std::bad_alloc when memory has not sufficed for the whole
    /// result. `contextNode` is where relative expressions start.
    tXPathExpr(const tXmlDocument& document, std::string expression, xmlNodePtr contextNode);

    /// By the rules of XPath's string(): that of the first node, or empty, for a set of nodes. Throws
    /// std::bad_alloc.
    std::string str() const;
    /// By the rules of XPath's boolean(): whether there is such a node.
    explicit operator bool() const;

    const std::string& expression() const { return expression_; }
    xmlXPathObjectPtr result() const { return result_.get(); }

  private:
    std::shared_ptr<xmlDoc> doc_;  // outlives the nodes that the result points at
    std::string expression_;
    Handle<xmlXPathContextPtr, &xmlXPathFreeContext> xpathCtx_;
    Handle<xmlXPathObjectPtr, &xmlXPathFreeObject> result_;
};

/// What foreach_xmlnode() does with each node.
class tXmlOperator {
  public:
    virtual ~tXmlOperator() = default;
    virtual void act(xmlNodePtr node) = 0;
};

/// Is told of the errors of single nodes.
using tErrorFunc = void (*)(const ExTraceable& error);

/// Applies `xmlOperator` to each node that the expression yields, in document order. An ExTraceable that it
/// throws goes to `errorFunc`, and the next node follows; anything else passes. Returns 1, or 0 after telling
/// `errorFunc` when the result has no set of nodes at all. Throws tError_XPath_TypesMismatch when it is not
/// one.
int foreach_xmlnode(const tXPathExpr& expr, tXmlOperator& xmlOperator, tErrorFunc errorFunc);

}  // namespace korva
