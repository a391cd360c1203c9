// SPDX-License-Identifier: Apache-2.0
#include "tallowick/retrieve_dump.h"

#include "agents/agent_spec.h"
#include "commons/bounded_text.h"
#include "commons/discard_stream.h"
#include "commons/incoming_file.h"
#include "commons/regular_file.h"
#include "commons/session.h"
#include "commons/stream_errors.h"
#include "commons/system_error.h"
#include "tallowick/agent_commands.h"
#include "tallowick/name_record.h"
#include "tallowick/retrieval_errors.h"
#include "tallowick/status_refresh.h"

#include <sstream>

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

}  // namespace

void RetrieveDumpAction::execute() {
    try {
        retrieve();
    } catch (const ExTraceable& e) {
        throw KORVA_EXC_CAUSED_BY(CantRetrieveDump, e);
    }
    writeNameRecord(cfg().session_path + "/dump-name", theSession->getDumpFileName());
}

void RetrieveDumpAction::retrieve() {
    const std::string remoteDump = cfg().agent_dir + "/dump.xml";
    status().setAgentParams(cfg().host);
    status().setAgentOperation(MigrationStatus::wait);
    status().saveFile();
    runDumper();
    takeFile(remoteDump);
    fetchDump(remoteDump);
}

void RetrieveDumpAction::runDumper() {
    const auto agent = theAgentsFactory().getAgent(cfg().agent_name);
    const std::string command = dumperCommand(*agent, cfg().agent_dir, input_, cfg().no_content);
    std::istringstream lists(input_.stdinText);
    DiscardStream out;
    BoundedText err;
    const StatusRefreshScope refresh(*this);
    const int exitCode = input_.stdinText.empty() ? execRoot(command, out, err, false)
                                                  : execRoot(command, lists, out, err, false, false);
    if (exitCode != 0) {
        throw KORVA_EXC(CantRetrieveDumpFile) % err.str();
    }
}

void RetrieveDumpAction::fetchDump(const std::string& remoteDump) try {
    const Descriptor session = openDirectory(theSession->getDir());
    IncomingFile::removeAbandoned(session);
    IncomingFile dump(session, "dump.xml");
    BoundedText err;
    const int exitCode = getSsh()->get(dump.stream(), err, remoteDump, Ssh::null_counter);
    dump.close();
    if (exitCode != 0) {
        throw KORVA_EXC(CantRetrieveDumpFile) % err.str();
    }
    dump.installFlushed();
} catch (const SystemError& e) {  // its text is for support; the caller knows of streams
    theDebugLog->log(std::string(e.what()));
    throw KORVA_EXC(StreamWrite);
}

}  // namespace korva
