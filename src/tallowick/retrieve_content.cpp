// SPDX-License-Identifier: Apache-2.0
#include "tallowick/retrieve_content.h"

#include "agents/agent_spec.h"
#include "commons/filesystem.h"
#include "commons/regular_file.h"
#include "commons/session.h"
#include "commons/system_error.h"
#include "tallowick/args_builder.h"
#include "tallowick/name_record.h"
#include "tallowick/retrieval_errors.h"

#include <boost/algorithm/string/predicate.hpp>
#include <boost/lexical_cast.hpp>
#include <boost/numeric/conversion/cast.hpp>

#include <fcntl.h>

#include <sstream>
#include <tuple>
#include <typeinfo>

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

std::unique_ptr<AgentFileList> readList(const std::string& text) {
    try {
        return getFileList(text);
    } catch (const boost::bad_lexical_cast&) {
        throw KORVA_EXC(CantRetrieveContentList) % "the size of a file is not a number of bytes";
    }
}

std::int64_t totalOf(const AgentFileList& list) {
    for (const DumpFile& file : list.getFileList()) {
        if (file.size < 0) {
            throw KORVA_EXC(CantRetrieveContentList) % ("the size of '" + file.name + "' is negative");
        }
    }
    try {
        return boost::numeric_cast<std::int64_t>(list.getTotalSize());
    } catch (const std::bad_cast&) {  // no number, or one that is out of range
        throw KORVA_EXC(CantRetrieveContentList) % "the total size is not a number of bytes";
    }
}

/// What the list says of a file against what there is of it; a list without a sum still gives a size.
struct Comparison {
    std::string seen;
    std::string listed;
    bool matches;
};

Comparison compare(const DumpFile& file, const std::string& md5, std::int64_t size) {
    if (!file.md5.empty()) {
        return {md5, file.md5, boost::algorithm::iequals(md5, file.md5)};
    }
    return {std::to_string(size) + " bytes", std::to_string(file.size) + " bytes",
            file.size == 0 || file.size == size};
}

// Whether the file that has the name already is the listed one, so that nothing worse may replace it.
bool isListedFile(const Descriptor& directory, const std::string& name, const DumpFile& file) {
    const std::optional<FileSum> present = sumRegularFile(directory.fd(), name);
    return present && (!file.md5.empty() || file.size > 0) &&
           compare(file, present->md5, present->size).matches;
}

void logMismatch(const std::string& remotePath, const Comparison& comparison) {
    Exc<& WrongMd5Sum> warning = KORVA_EXC(WrongMd5Sum) % remotePath % comparison.seen % comparison.listed;
    warning.setSeverity(kSeverityWarning);
    theDebugLog->log(warning);
}

}  // namespace

void RetrieveContentAction::execute() {
    const PanelAccount owner = panelAccount();
    make_content_dir(theSession->getCidFilesDir(), owner);
    status().setAgentParams(cfg().host);
    status().setTransferDump();
    status().saveFile();

    const std::unique_ptr<AgentFileList> list = requestList();
    const std::vector<DumpFile>& files = list->getFileList();
    const std::int64_t total = totalOf(*list);
    ContentTarget target(cfg().dumps_dir.empty() ? theSession->getCidFilesDir() : cfg().dumps_dir, owner);
    if (!cfg().no_check_space) {
        requireSpace(target.directory(), total);
    }
    status().setTransferTotals(std::to_string(files.size()), std::to_string(total));
    status().saveFile();

    FileRetrievalProgressUpdater progress(status(), total, static_cast<std::int32_t>(files.size()));
    fetchAll(files, target, progress);
    writeNameRecord(cfg().session_path + "/dump-name", target.directory() + "/dump.xml");
    writeNameRecord(cfg().session_path + "/migration-result-name", target.directory() + "/migration.result");
}

std::unique_ptr<AgentFileList> RetrieveContentAction::requestList() {
    const auto agent = theAgentsFactory().getAgent(cfg().agent_name);
    const std::string entry = cfg().agent_dir + "/" + agent->entryPoint();
    std::ostringstream out;
    std::ostringstream err;
    const std::string command = (ArgsBuilder(agent->interpreter()) << entry << "--get-content-list").str();
    if (execRoot(command, out, err, false) != 0) {
        throw KORVA_EXC(CantRetrieveContentList) % err.str();
    }
    try {
        return readList(out.str());
    } catch (const ExTraceable&) {  // it quotes the text
        std::ignore = readList(getSsh()->secrets().mask(out.str()));
        throw KORVA_EXC(CantRetrieveContentList) % "the list is not well-formed";
    }
}

void RetrieveContentAction::requireSpace(const std::string& directory, std::int64_t needed) const {
    const std::uint64_t free = getFreeSpace(directory);
    if (static_cast<std::uint64_t>(needed) > free) {
        throw KORVA_EXC(NotEnoughSpace) % free % needed;
    }
}

void RetrieveContentAction::fetchAll(const std::vector<DumpFile>& files, ContentTarget& target,
                                     FileRetrievalProgressUpdater& progress) {
    try {
        for (const DumpFile& file : files) {
            progress.startFile(file.size);
            status().setCurrentFile(file.name, std::to_string(file.size));
            fetch(file, target, progress);
            progress.finishFile();
        }
    } catch (const ExTraceable& e) {
        throw KORVA_EXC_CAUSED_BY(CantRetrieveDump, e);
    }
}

void RetrieveContentAction::fetch(const DumpFile& file, ContentTarget& target,
                                  FileRetrievalProgressUpdater& progress) {
    const auto failure = [&](const std::string& reason) {
        return KORVA_EXC(CantRetrieveContentFile) % file.name % cfg().host % target.localPath(file.name) %
               reason;
    };
    if (const std::optional<std::string> reason = target.refusal(file.name)) {
        throw failure(*reason);
    }
    try {
        const Descriptor directory = target.enterDirectoryOf(file.name);
        const bool isHere =
            (checkMD5(file) && takeMatch(file, directory)) || download(file, target, directory, progress);
        if (isHere) {
            removeRemote(file);
        }
    } catch (const SystemError& e) {
        throw failure(e.what());
    }
}

// By the last component alone, and in the session's own directory whatever the target is.
bool RetrieveContentAction::checkMD5(const DumpFile& file) const {
    const std::optional<FileSum> present =
        sumRegularFile(AT_FDCWD, theSession->getCidFile(lastComponent(file.name)));
    return present && present->md5 == file.md5;
}

// The match may be the file of another path with the same last component: both are to exist.
bool RetrieveContentAction::takeMatch(const DumpFile& file, const Descriptor& directory) const {
    const std::string name = lastComponent(file.name);
    if (isListedFile(directory, name, file)) {
        return true;
    }
    IncomingFile copy(directory, name);
    copyRegularFile(theSession->getCidFile(name), copy.stream());
    copy.close();
    if (copy.md5() != file.md5) {
        return false;
    }
    copy.install();
    return true;
}

bool RetrieveContentAction::download(const DumpFile& file, const ContentTarget& target,
                                     const Descriptor& directory, FileRetrievalProgressUpdater& progress) {
    const std::string name = lastComponent(file.name);
    IncomingFile incoming(directory, name);
    std::ostringstream err;
    if (getSsh()->get(incoming.stream(), err, remotePath(file), progress) != 0) {
        throw KORVA_EXC(CantRetrieveContentFile) % file.name % cfg().host % target.localPath(file.name) %
            err.str();
    }
    incoming.close();
    const Comparison comparison = compare(file, incoming.md5(), incoming.size());
    if (!comparison.matches) {
        logMismatch(remotePath(file), comparison);
    }
    if (comparison.matches || !isListedFile(directory, name, file)) {
        incoming.install();
    }
    return comparison.matches;
}

void RetrieveContentAction::removeRemote(const DumpFile& file) {
    std::ostringstream out;
    std::ostringstream err;
    if (execRoot((ArgsBuilder("rm") << remotePath(file)).str(), out, err, false) != 0) {
        theDebugLog->log(KORVA_EXC(UnableToRemoveRemoteFile) % remotePath(file) % cfg().host % err.str());
    }
}

}  // namespace korva
