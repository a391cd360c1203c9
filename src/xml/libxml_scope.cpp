// SPDX-License-Identifier: Apache-2.0
#include "xml/libxml_scope.h"

#include "xml/xml_parse.h"

#include <libxml/globals.h>

namespace korva {

LibxmlScope::LibxmlScope()
    : structuredBefore_(xmlStructuredError), structuredContextBefore_(xmlStructuredErrorContext) {
    // A structured error function would get the messages in place of the generic one.
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    xmlSetGenericErrorFunc(&messages_, &libxmlErrorHandler);
    xmlResetLastError();
}

LibxmlScope::~LibxmlScope() {
    xmlSetGenericErrorFunc(nullptr, nullptr);
    xmlSetStructuredErrorFunc(structuredContextBefore_, structuredBefore_);
}

bool LibxmlScope::hasLackedMemory() {
    const xmlError* const error = xmlGetLastError();
    return error != nullptr && error->code == XML_ERR_NO_MEMORY;
}

}  // namespace korva
