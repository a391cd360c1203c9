// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

namespace korva {

KORVA_ERROR_TAG(AssertionFailed, "Assertion failed: %1%")

KORVA_ERROR_TAG(tError_WrongInputFile,
                "The XML file does not exist or is not a regular file. Check the file '%1%'")
KORVA_ERROR_TAG(tError_ParseFile,
                "The XML file %1% was not parsed successfully with the following errors:\n%2%")
KORVA_ERROR_TAG(tError_EmptyDoc, "The document is empty. Can not find root element <%1%>")
/// Expected and found name of the root.
KORVA_ERROR_TAG(tError_WrongDoc,
                "The document has the wrong type, root node is <%2%>, but <%1%> was expected")
KORVA_ERROR_TAG(tError_WrongContent, "%1%")
/// Names of the node and of the attribute.
KORVA_ERROR_TAG(NoSuchAttribute, "Node %1% does not have attribute %2%")
KORVA_ERROR_TAG(tError_XmlInternal, "%1%")

KORVA_ERROR_TAG(tError_XPath_CantEvaluate,
                "The XML document is invalid for XPath exception.\n"
                "Can not evaluate result of expression '%1%'")
KORVA_ERROR_TAG(tError_XPath_TypesMismatch, "The result of expression '%1%' is not a '%2%' type")

KORVA_ERROR_TAG(tError_SaveFile, "Can not save the XML document to file '%1%'")
KORVA_ERROR_TAG(CantTakeFileOwnership, "Cannot take ownership of %1%: %2%")
KORVA_ERROR_TAG(CantRenameFile, "Cannot rename %1% to %2%: %3%")

KORVA_ERROR_TAG(NoParentNode, "No parent node on requested XML element")

}  // namespace korva
