// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "tallowick/actions.h"
#include "tallowick/content_target.h"
#include "tallowick/retrieval_errors.h"
#include "tallowick/retrieval_progress.h"
#include "xml/agent_file_list.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace korva {

/// Fetches the content files that the agent lists, one by one; each is removed from the source host once its
/// bytes are here.
class RetrieveContentAction : public Action {
  public:
    RetrieveContentAction() : Action(true) {}
    void execute() override;

  private:
    std::unique_ptr<AgentFileList> requestList();
    std::string outputOf(const std::string& command);
    std::int64_t totalOf(const AgentFileList& list);
    void requireSpace(const std::string& directory, std::int64_t needed) const;
    void fetchAll(const std::vector<DumpFile>& files, ContentTarget& target,
                  FileRetrievalProgressUpdater& progress);
    void fetch(const DumpFile& file, ContentTarget& target, FileRetrievalProgressUpdater& progress);
    bool checkMD5(const DumpFile& file) const;
    bool takeMatch(const DumpFile& file, const Descriptor& directory) const;
    bool download(const DumpFile& file, const ContentTarget& target, const Descriptor& directory,
                  FileRetrievalProgressUpdater& progress);
    void logMismatch(const DumpFile& file, const std::string& seen, const std::string& listed);
    void removeRemote(const DumpFile& file);
    Exc<&CantRetrieveContentFile> failure(const DumpFile& file, const ContentTarget& target,
                                          const std::string& reason);
    std::string masked(const std::string& text);
    std::string shown(const std::string& text);
    std::string remotePath(const DumpFile& file) const { return cfg().agent_dir + "/" + file.name; }
};

}  // namespace korva
