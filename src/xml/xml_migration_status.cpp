// SPDX-License-Identifier: Apache-2.0
#include "xml/xml_migration_status.h"

#include "commons/session.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <tuple>

namespace korva {
namespace {

int exchange(const std::string& one, const std::string& other) {
    return ::renameat2(AT_FDCWD, one.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
}

}  // namespace

std::unique_ptr<MigrationStatus> createMigrationStatusFile() {
    return std::make_unique<XmlMigrationStatus>();
}

XmlMigrationStatus::XmlMigrationStatus() {
    initNewDoc("migration-status");
}

void XmlMigrationStatus::setIdle() {
    state_ = kIdle;
}

void XmlMigrationStatus::setAgentParams(const std::string& params) {
    agentParams_ = params;
}

void XmlMigrationStatus::setAgentOperation(agentOperation op) {
    agentOperation_ = op;
    state_ = kAgent;
}

void XmlMigrationStatus::setTransferSpeed(const std::string& speed) {
    transferSpeed_ = speed;
}

void XmlMigrationStatus::setTransferDump() {
    state_ = kTransferDump;
}

void XmlMigrationStatus::setTransferTotals(const std::string& totalFiles, const std::string& totalSize) {
    filesTotal_ = totalFiles;
    sizeTotal_ = totalSize;
    filesLeft_ = totalFiles;
    sizeLeft_ = totalSize;
    state_ = kTransferFiles;
}

void XmlMigrationStatus::setTransferFilesLeft(const std::string& filesLeft) {
    filesLeft_ = filesLeft;
    state_ = kTransferFiles;
}

void XmlMigrationStatus::setTransferSizeLeft(const std::string& sizeLeft) {
    sizeLeft_ = sizeLeft;
    state_ = kTransferFiles;
}

void XmlMigrationStatus::setCurrentFile(const std::string& name, const std::string& size) {
    currentFileName_ = name;
    currentFileSize_ = size;
    currentFileSizeLeft_ = size;
}

void XmlMigrationStatus::setTransferCurrentFileSizeLeft(const std::string& sizeLeft) {
    currentFileSizeLeft_ = sizeLeft;
    state_ = kTransferFiles;
}

void XmlMigrationStatus::setDeployTotals(const std::string& accounts, const std::string& domains) {
    totalAccounts_ = accounts;
    totalDomains_ = domains;
    state_ = kDeploy;
}

void XmlMigrationStatus::setDeploy(const std::string& completedAccounts,
                                   const std::string& completedDomains) {
    completedAccounts_ = completedAccounts;
    completedDomains_ = completedDomains;
    state_ = kDeploy;
}

void XmlMigrationStatus::setCurrentObject(const std::string& name, objectType type) {
    currentObjectName_ = name;
    currentObjectType_ = type;
}

void XmlMigrationStatus::setTranslate() {
    state_ = kTranslate;
}

void XmlMigrationStatus::saveFile() {
    pid_ = std::to_string(::getpid());
    rebuild();
    saveToFileAtomically(theSession->getStatusFileName(), Durability::kCached);
}

// Each piece of a transfer may save, and ext4 writes a file to the disk when it replaces another one: the two
// change places instead.
int XmlMigrationStatus::putInPlace(const std::string& temporary, const std::string& path) const {
    if (exchange(temporary, path) != 0) {  // nothing is there yet, or the file system cannot do it
        return tXmlDocument::putInPlace(temporary, path);
    }
    if (::unlink(temporary.c_str()) == 0) {
        return 0;
    }
    const int error = errno;
    std::ignore = exchange(temporary, path);  // what cannot be replaced, a directory say, goes back
    return error;
}

// The root keeps its attributes: counters of a deployment stay in every later document.
void XmlMigrationStatus::rebuild() {
    while (xmlNodePtr child = root()->children) {
        xmlUnlinkNode(child);
        xmlFreeNode(child);
    }
    newTextChild(nullptr, "pid", pid_);  // no parent, no element: readers of the file know none
    switch (state_) {
        case kIdle:
            newChild(root(), "idle");
            break;
        case kAgent:
            addAgent();
            break;
        case kTranslate:
            newChild(root(), "translate");
            break;
        case kDeploy:
            addDeploy();
            break;
        case kTransferDump:
        case kTransferFiles:
            addTransfer();
            break;
    }
}

void XmlMigrationStatus::addAgent() {
    xmlNodePtr agent = newChild(root(), "agent");
    addAttribute(agent, "action", agentOperation_ == deploy ? "deploy" : "wait");
    newTextChild(agent, "host", agentParams_);
}

void XmlMigrationStatus::addTransfer() {
    xmlNodePtr transfer = newChild(root(), "transfer");
    if (!transferSpeed_.empty()) {
        addAttribute(transfer, "speed", transferSpeed_);
    }
    newTextChild(transfer, "host", agentParams_);
    if (state_ == kTransferDump) {
        newChild(transfer, "dumpfile");
    } else {
        addFiles(transfer);
    }
}

void XmlMigrationStatus::addFiles(xmlNodePtr transfer) {
    xmlNodePtr files = newChild(transfer, "files");
    addAttribute(files, "total", filesTotal_);
    addAttribute(files, "left", filesLeft_);
    if (!sizeTotal_.empty() && !sizeLeft_.empty()) {
        addAttribute(files, "size-total", sizeTotal_);
        addAttribute(files, "size-left", sizeLeft_);
    }
    if (currentFileName_.empty()) {
        return;
    }
    xmlNodePtr currentFile = newTextChild(files, "current-file", currentFileName_);
    if (!currentFileSize_.empty()) {
        addAttribute(currentFile, "size", currentFileSize_);
        addAttribute(currentFile, "size-left", currentFileSizeLeft_);
    }
}

void XmlMigrationStatus::addDeploy() {
    addAttribute(root(), "total-accounts", totalAccounts_);
    addAttribute(root(), "total-domains", totalDomains_);
    addAttribute(root(), "completed-accounts", completedAccounts_);
    addAttribute(root(), "completed-domains", completedDomains_);
    if (currentObjectName_.empty()) {
        return;
    }
    xmlNodePtr object = newTextChild(root(), "current-object", currentObjectName_);
    addAttribute(object, "type", currentObjectType_ == account ? "account" : "domain");
}

}  // namespace korva
