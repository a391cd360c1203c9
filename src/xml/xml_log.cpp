// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_log.h"

#include "commons/session.h"
#include "xml/message_formatters.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>

namespace korva {
namespace {

constexpr const char* kSourceName = "./xml_wrap";

std::string resultFileName(const std::string& name) {
    return name.empty() ? theSession->getResultFileName() : theSession->getDir() + "/" + name;
}

/// A symbolic link exists even when its target does not.
bool exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

/// Renames without replacing anything: 0, or the errno value.
int renameToFreeName(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return 0;
    }
    if (errno != EINVAL) {
        return errno;
    }
    // The file system cannot refuse to replace, so the name is looked for before.
    if (exists(to)) {
        return EEXIST;
    }
    return std::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

/// Moves the result of an earlier run out of the way. Another run in the same session may do so, too.
void keepPredecessor(const std::string& fileName) {
    for (int number = 1;; ++number) {
        const std::string keptName = fileName + "." + std::to_string(number);
        const int error = renameToFreeName(fileName, keptName);
        // A read-only file system says so even where there is nothing to be moved.
        if (error == 0 || error == ENOENT || (error == EROFS && !exists(fileName))) {
            return;
        }
        if (error != EEXIST) {
            throw KORVA_EXC(CantRenameFile) % fileName % keptName % std::strerror(error);
        }
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

// Of several runs in one session each may be the one that ends last.
int XmlLog::putInPlace(const std::string& temporary, const std::string& path) const {
    int error = 0;
    while ((error = renameToFreeName(temporary, path)) == EEXIST) {
        keepPredecessor(path);
    }
    return error;
}

}  // namespace korva
