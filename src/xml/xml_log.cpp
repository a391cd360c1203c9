// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_log.h"

#include "commons/session.h"
#include "xml/message_formatters.h"

#include <boost/format.hpp>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

namespace korva {
namespace {

constexpr const char* kSourceName = "./xml_wrap";

/// A symbolic link exists even when its target does not.
bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::string resultFileName(const std::string& name) {
    return name.empty() ? theSession->getResultFileName() : theSession->getDir() + "/" + name;
}

/// Moves the result of an earlier run out of the way.
void keepPredecessor(const std::string& fileName) {
    if (!exists(fileName)) {
        return;
    }
    std::string keptName;
    int number = 1;
    do {
        keptName = fileName + (boost::format(".%1%") % number++).str();
    } while (exists(keptName));
    if (std::rename(fileName.c_str(), keptName.c_str()) != 0) {
        throw KORVA_EXC(CantRenameFile) % fileName % keptName % std::strerror(errno);
    }
}

/// For a destructor, which has nobody else to tell.
template <typename T>
void tellDebugLog(const T& failure) noexcept {
    try {
        if (theDebugLog != nullptr) {
            theDebugLog->log(failure);
        }
    } catch (...) {
    }
}

}  // namespace

XmlLog::XmlLog(const std::string& name) : fileName_(resultFileName(name)) {
    initNewDoc("execution-result");
    current_ = root();
    keepPredecessor(fileName_);
}

XmlLog::~XmlLog() {
    if (closed_) {
        return;
    }
    try {
        close();
    } catch (const ExTraceable& error) {
        tellDebugLog(error);
    } catch (const std::exception& error) {
        tellDebugLog(std::string(error.what()));
    }
}

void XmlLog::setSuccess(bool success) {
    success_ = success;
}

void XmlLog::log(const ExTraceable& error) {
    XmlMsgFormatter formatter(*this, newChild(current_, "message"));
    error.accept(formatter);
    flags_.back() = true;
}

void XmlLog::pushObject(const std::string& name, const std::string& type) {
    xmlNodePtr object = newChild(current_, "object");
    addAttribute(object, "name", name);
    addAttribute(object, "type", type);
    flags_.push_back(false);
    current_ = object;
}

void XmlLog::popObject() {
    xmlNodePtr parent = current_->parent;
    if (parent == nullptr || parent->type != XML_ELEMENT_NODE) {
        throw KORVA_EXC(NoParentNode);
    }
    const bool errorLogged = flags_.back();
    flags_.pop_back();
    if (errorLogged) {
        flags_.back() = true;
    } else {
        xmlUnlinkNode(current_);
        xmlFreeNode(current_);
    }
    current_ = parent;
}

std::size_t XmlLog::getDepth() const {
    return flags_.size() - 1;
}

void XmlLog::close() {
    closed_ = true;
    addAttribute(root(), "status", success_ ? "success" : "error");
    saveToFileAtomically(fileName_, Durability::kFlushed);
}

}  // namespace korva
