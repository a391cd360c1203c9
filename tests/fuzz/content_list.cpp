// SPDX-License-Identifier: Apache-2.0
#include "commons/session.h"
#include "fuzz/error_report.h"
#include "tallowick/content_target.h"
#include "tallowick/retrieval_progress.h"
#include "unit/xml/session_dir.h"
#include "xml/agent_file_list.h"
#include "xml/xml_errors.h"
#include "xml/xml_wrap.h"

#include <boost/lexical_cast.hpp>
#include <boost/numeric/conversion/cast.hpp>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <optional>

namespace {

using korva::DumpFile;
using korva::fuzz::require;

constexpr std::size_t kFilesWithProgress = 4;  // what the status says of more is the same

std::unique_ptr<korva::AgentFileList> listOf(const std::string& text) {
    try {
        return korva::getFileList(text);
    } catch (const korva::ExTraceable& error) {
        korva::fuzz::requireReport(error);
    } catch (const boost::bad_lexical_cast&) {
        // A size that is no number.
    }
    return nullptr;
}

// The bytes of all files, where the list is one that is accepted.
std::optional<std::int64_t> totalOf(const korva::AgentFileList& list) {
    try {
        list.getUnpackedSize();
        return boost::numeric_cast<std::int64_t>(list.getTotalSize());
    } catch (const korva::Exc<&korva::NoSuchAttribute>& error) {
        korva::fuzz::requireReport(error);
    } catch (const std::bad_cast&) {
        // No number, or one that is out of range.
    }
    return std::nullopt;
}

void requirePath(const korva::ContentTarget& target, const DumpFile& file) {
    if (target.refusal(file.name)) {
        return;
    }
    const auto path = std::filesystem::path(target.localPath(file.name)).lexically_normal();
    require(path.string().starts_with(target.directory() + "/"), "what is fetched stays below the directory");
    require(!path.filename().empty(), "what is fetched has a name");
    require(file.name.size() <= PATH_MAX, "what is fetched has a path that can be");
}

std::string attribute(const xmlNode* node, const char* name) {
    return korva::tXmlDvxDocument::findAttribute(node, name).value_or("");
}

void requireStatus(const DumpFile& file) {
    korva::tXmlDvxDocument status(std::filesystem::path(korva::theSession->getStatusFileName()));
    status.initFileDoc("migration-status");
    xmlNodePtr files = xmlLastElementChild(xmlFirstElementChild(status.root()));
    require(!attribute(files, "left").starts_with('-'), "the number of files left is none below 0");
    require(!attribute(files, "size-left").starts_with('-'), "the size left is none below 0");
    xmlNodePtr current = xmlFirstElementChild(files);
    require((current == nullptr) == file.name.empty(), "the current file is told");
    if (current != nullptr) {
        require(korva::tXmlDvxDocument::getNodeText(current) == file.name,
                "the name is read as it was listed");
        require(!attribute(current, "size-left").starts_with('-'), "the rest of a file is none below 0");
    }
}

void requireProgress(const std::vector<DumpFile>& files, std::int64_t total) {
    const std::unique_ptr<korva::MigrationStatus> status = korva::createMigrationStatusFile();
    status->setTransferTotals(std::to_string(files.size()), std::to_string(total));
    korva::FileRetrievalProgressUpdater progress(*status, total, static_cast<std::int32_t>(files.size()));
    for (std::size_t index = 0; index < std::min(files.size(), kFilesWithProgress); ++index) {
        const DumpFile& file = files[index];
        progress.startFile(file.size);
        status->setCurrentFile(file.name, std::to_string(file.size));
        progress(65536);
        requireStatus(file);
        progress.finishFile();
        requireStatus(file);
    }
}

}  // namespace

/// The input is what an agent prints as its list of content files.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const korva::test::SessionDir session;
    const auto list = listOf(korva::fuzz::textOf(data, size));
    if (!list) {
        return 0;
    }
    const std::vector<DumpFile>& files = list->getFileList();
    const korva::ContentTarget target(korva::theSession->getCidFilesDir(), {::geteuid(), ::getegid()});
    bool sizesAreSizes = true;
    for (const DumpFile& file : files) {
        requirePath(target, file);
        require(file.hasSize || file.size == 0, "a size that is not given is 0");
        sizesAreSizes = sizesAreSizes && file.size >= 0;
    }
    const std::optional<std::int64_t> total = totalOf(*list);
    if (total && sizesAreSizes) {
        requireProgress(files, *total);
    }
    return 0;
}
