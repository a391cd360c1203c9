// SPDX-License-Identifier: Apache-2.0
#include "tallowick/retrieve_content.h"

#include "agents/agent_spec.h"
#include "commons/bounded_text.h"
#include "commons/discard_stream.h"
#include "commons/filesystem.h"
#include "commons/regular_file.h"
#include "commons/session.h"
#include "commons/stream_errors.h"
#include "commons/system_error.h"
#include "tallowick/agent_commands.h"
#include "tallowick/content_list.h"
#include "tallowick/name_record.h"
#include "tallowick/retrieval_errors.h"
#include "xml/xml_reader.h"

#include <boost/algorithm/string/predicate.hpp>

#include <fcntl.h>
#include <sys/stat.h>

#include <climits>
#include <tuple>

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

// Of a text that a source host lists. A path that is fetched is shown whole, with the directory it goes to.
constexpr std::size_t kMostShown = std::size_t{2} * PATH_MAX;  // bytes

std::string shortened(const std::string& text) {
    if (text.size() <= kMostShown) {
        return text;
    }
    std::size_t end = kMostShown;
    while (end > kMostShown - 4 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end;  // to where a character begins
    }
    return text.substr(0, end) + " [" + std::to_string(text.size() - end) + " bytes left out]";
}

/// What the list says of a file against what there is of it. Without a sum the size has to do, without both
/// every file will.
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
            !file.hasSize || file.size == size};
}

// Whether the file that has the name already is the listed one, so that nothing worse may replace it.
bool isListedFile(const Descriptor& directory, const std::string& name, const DumpFile& file) {
    const std::optional<FileSum> present = sumRegularFile(directory.fd(), name);
    return present && (!file.md5.empty() || file.hasSize) &&
           compare(file, present->md5, present->size).matches;
}

bool isSameFile(const Descriptor& directory, const std::string& name, const std::string& path) {
    struct stat one {};
    struct stat other {};
    return fstatat(directory.fd(), name.c_str(), &one, AT_SYMLINK_NOFOLLOW) == 0 &&
           lstat(path.c_str(), &other) == 0 && one.st_dev == other.st_dev && one.st_ino == other.st_ino;
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
    const std::string text = outputOf(contentListCommand(*agent, cfg().agent_dir));
    try {
        return readContentList(text);
    } catch (const ExTraceable&) {  // it quotes the text
        if (isConverted(text)) {
            throw KORVA_EXC(CantRetrieveContentList) % "the list is not well-formed, and not in UTF-8";
        }
        const std::string harmless = masked(text);
        if (harmless == text) {
            throw;
        }
        std::ignore = readContentList(harmless);
        throw KORVA_EXC(CantRetrieveContentList) % "the list is not well-formed";
    }
}

std::string RetrieveContentAction::outputOf(const std::string& command) {
    LimitedText out(kMaxListSize);
    BoundedText err;
    try {
        if (execRoot(command, out, err, false) != 0) {
            throw KORVA_EXC(CantRetrieveContentList) % err.str();
        }
    } catch (const Exc<&StreamWrite>&) {
        if (!out.exceeded()) {
            throw;
        }
        throw KORVA_EXC(CantRetrieveContentList) % "the list is larger than 16 MiB";
    }
    return out.str();
}

std::int64_t RetrieveContentAction::totalOf(const AgentFileList& list) {
    return totalOfList(list, [this](const std::string& text) { return shown(text); });
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
    if (const std::optional<std::string> reason = target.refusal(file.name)) {
        throw failure(file, target, *reason);
    }
    const HiddenCommands quiet(*getSsh(), masked(file.name) != file.name);
    try {
        const Descriptor directory = target.enterDirectoryOf(file.name);
        const bool isHere =
            (checkMD5(file) && takeMatch(file, directory)) || download(file, target, directory, progress);
        if (isHere) {
            removeRemote(file);
        }
    } catch (const SystemError& e) {
        throw failure(file, target, shown(e.what()));
    }
}

Exc<&CantRetrieveContentFile> RetrieveContentAction::failure(const DumpFile& file,
                                                             const ContentTarget& target,
                                                             const std::string& reason) {
    return KORVA_EXC(CantRetrieveContentFile) % shown(file.name) % cfg().host %
           shown(target.localPath(file.name)) % reason;
}

// By the last component alone, and in the session's own directory whatever the target is.
bool RetrieveContentAction::checkMD5(const DumpFile& file) const {
    if (file.md5.empty()) {  // no file has that sum
        return false;
    }
    const std::optional<FileSum> present =
        sumRegularFile(AT_FDCWD, theSession->getCidFile(lastComponent(file.name)));
    return present && present->md5 == file.md5;
}

// The match may be the file of another path with the same last component: both are to exist.
bool RetrieveContentAction::takeMatch(const DumpFile& file, const Descriptor& directory) const {
    const std::string name = lastComponent(file.name);
    const std::string match = theSession->getCidFile(name);
    if (isSameFile(directory, name, match) || isListedFile(directory, name, file)) {
        return true;
    }
    IncomingFile copy(directory, name, IncomingFile::Sum::kMd5);
    copyRegularFile(match, copy.stream());
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
    const bool isSummed = !file.md5.empty();
    IncomingFile incoming(directory, name, isSummed ? IncomingFile::Sum::kMd5 : IncomingFile::Sum::kNone);
    BoundedText err;
    if (getSsh()->get(incoming.stream(), err, remotePath(file), progress) != 0) {
        throw failure(file, target, err.str());
    }
    incoming.close();
    const Comparison comparison = compare(file, isSummed ? incoming.md5() : std::string(), incoming.size());
    if (!comparison.matches) {
        logMismatch(file, comparison.seen, comparison.listed);
    }
    if (comparison.matches || !isListedFile(directory, name, file)) {
        incoming.install();
    }
    return comparison.matches;
}

void RetrieveContentAction::logMismatch(const DumpFile& file, const std::string& seen,
                                        const std::string& listed) {
    auto warning = KORVA_EXC(WrongMd5Sum) % shown(remotePath(file)) % seen % shown(listed);
    warning.setSeverity(kSeverityWarning);
    theDebugLog->log(warning);
}

void RetrieveContentAction::removeRemote(const DumpFile& file) {
    DiscardStream out;
    BoundedText err;
    if (execRoot(removeCommand(remotePath(file)), out, err, false) != 0) {
        theDebugLog->log(KORVA_EXC(UnableToRemoveRemoteFile) % shown(remotePath(file)) % cfg().host %
                         err.str());
    }
}

// Names and sums come from the remote side, which may repeat a password in them.
std::string RetrieveContentAction::masked(const std::string& text) {
    return getSsh()->secrets().mask(text);
}

// Hidden first: half of a password at the cut would not be found.
std::string RetrieveContentAction::shown(const std::string& text) {
    return shortened(masked(text));
}

}  // namespace korva
