// SPDX-License-Identifier: Apache-2.0
#include "tallowick/send_agent.h"

#include "agents/agent_spec.h"
#include "commons/bounded_text.h"
#include "commons/discard_stream.h"
#include "commons/log_line.h"
#include "commons/output_file.h"
#include "commons/product_paths.h"
#include "commons/session.h"
#include "commons/stream_errors.h"
#include "tallowick/agent_commands.h"
#include "tallowick/args_builder.h"
#include "tallowick/dir_walk.h"
#include "utils/accounts.h"

#include <log4cpp/Category.hh>

namespace korva {
namespace {

constexpr const char* kSourceName = "./send_agent";

namespace fs = std::filesystem;

log4cpp::Category& category() {
    return log4cpp::Category::getInstance("k.SendAgentAction");
}

}  // namespace

void SendAgentAction::execute() {
    status().setAgentParams(cfg().host);
    status().setAgentOperation(MigrationStatus::deploy);
    status().saveFile();
    noticeLine(category()) << "Copying agent " << cfg().agent_name << " to the remote host.";

    const fs::path agentsDirectory = files::agents::getDir();
    const fs::path shared = agentsDirectory / "shared";
    std::error_code unreadable;
    if (!fs::exists(shared, unreadable)) {
        throw KORVA_EXC(NoSharedAgentsDirectory);
    }
    sendTree(shared);
    const fs::path agent =
        agentsDirectory.string() + (cfg().agent_name.empty() ? "" : "/" + cfg().agent_name);
    if (!fs::exists(agent, unreadable)) {
        throw KORVA_EXC(NoAgentDirectory) % agent.string();
    }
    sendTree(agent);

    status().setAgentOperation(MigrationStatus::wait);
    status().saveFile();
    noticeLine(category()) << "Getting agent deployment status";
    requestStatus();
}

void SendAgentAction::sendTree(const fs::path& root) {
    try {
        recursive_dir_walk_sync(root, cfg().agent_dir,
                                [&](const fs::path& localPath, const std::string& remotePath) {
                                    return sendFile(root, localPath, remotePath);
                                });
    } catch (const fs::filesystem_error& e) {
        errorLine(category()) << "Cannot read " << root.string() << ": " << e.what();
        throw KORVA_EXC(StreamRead);
    }
}

bool SendAgentAction::sendFile(const fs::path& root, const fs::path& localPath,
                               const std::string& remotePath) {
    if (!fs::is_directory(localPath)) {
        infoLine(category()) << "remote <copy " << remotePath << " (from " << localPath.string() << ")";
        getSsh()->put(localPath.string(), remotePath);
        return true;
    }
    if (isDescription(root, localPath)) {
        return false;
    }
    infoLine(category()) << "remote mkdir " << remotePath;
    makeRemoteDirectory(remotePath);
    return true;
}

// Files are uploaded as the login user, so a directory that sudo has created must be that user's.
void SendAgentAction::makeRemoteDirectory(const std::string& remotePath) {
    const std::string commands[] = {(ArgsBuilder("mkdir") << "-p" << remotePath).str(),
                                    (ArgsBuilder("chown") << cfg().login << remotePath).str()};
    for (const std::string& command : commands) {
        DiscardStream out;
        BoundedText err;
        if (execRoot(command, out, err, false) != 0) {
            throw KORVA_EXC(CantCreateAgentDirectory) % remotePath % err.str();
        }
    }
}

void SendAgentAction::requestStatus() {
    const auto agent = theAgentsFactory().getAgent(cfg().agent_name);
    OutputFile answer(theSession->getDeploymentStatusFileName());
    BoundedText err;
    const int exitCode = execRoot(statusCommand(*agent, cfg().agent_dir), answer, err, false);
    if (exitCode == 0) {
        answer.giveTo(kPanelAccount);
    }
    answer.close();
    if (exitCode != 0) {
        throw KORVA_EXC(CantRequestAgentStatus) % entryPath(*agent, cfg().agent_dir) % err.str();
    }
}

}  // namespace korva
