// SPDX-License-Identifier: Apache-2.0
#include "agent_check/agent_checker.h"

#include "agent_check/documents.h"
#include "agent_check/spec_rules.h"
#include "agent_check/status_watch.h"
#include "commons/product_paths.h"
#include "commons/uuid.h"
#include "tallowick/agent_commands.h"

#include <fstream>
#include <iterator>
#include <sstream>

namespace korva::agent_check {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDumpName = "dump.xml";
constexpr const char* kOverDump = "over an earlier dump ";
constexpr const char* kOverRest = "over what is left when all is fetched ";
constexpr std::size_t kUuidSize = 36;  // without the NUL behind it

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool contains(const std::string& text, const std::string& word) {
    return text.find(word) != std::string::npos;
}

std::string said(const CommandResult& result) {
    return result.err.empty() ? "" : ": " + result.err;
}

}  // namespace

AgentChecker::AgentChecker(const CheckRequest& request, const std::string& place, Report& report)
    : request_(request),
      report_(report),
      deployment_(place + "/agent", login_),
      password_("not-a-password-" + newUUID().substr(0, kUuidSize)) {}

void AgentChecker::run() {
    adoptOrphans();
    if (prepare() && checkStatus() && checkDump() && checkFirstList()) {
        checkFurtherDumps();
        if (!report_.isTold(rules::kModes)) {
            report_.tell(rules::kModes, Verdict::kOk, "nothing has to be executable");
        }
    }
    if (!left_.empty()) {
        Findings findings(report_, rules::kProcesses);
        for (const std::string& name : left_) {
            findings.warning("'" + name + "' was still running");
        }
        findings.tell({});
    } else if (report_.isTold(rules::kModes)) {
        report_.tell(rules::kProcesses, Verdict::kOk, "nothing was left running");
    }
}

bool AgentChecker::prepare() {
    agent_ = checkSpec(request_.agent.filename().string(), request_.agent.string(), report_);
    Findings shared(report_, rules::kShared);
    std::error_code failure;
    if (!fs::exists(request_.shared, failure)) {
        shared.problem(request_.shared.string() + " does not exist: no agent can be deployed");
    }
    shared.tell(request_.shared.string());
    deployment_.make(request_.shared, request_.agent, report_);
    checkTrees(request_.shared, request_.agent, report_);
    if (!agent_ || !checkEntryPoint(*agent_, deployment_.directory(), report_) ||
        !checkInterpreter(*agent_, deployment_.directory(), report_)) {
        return false;
    }
    executables_ = deployment_.executables(agent_->entryPoint());
    return true;
}

CommandResult AgentChecker::execute(const std::string& command, const std::string& input, Watcher* watcher) {
    // Only the dumper is watched, and what it prints is nothing to the program.
    const LongOutput longOutput = watcher == nullptr ? LongOutput::kEnds : LongOutput::kIsCut;
    CommandResult result = runCommand(inAgentDirectory(deployment_.directory(), command), input,
                                      request_.timeLimit, longOutput, watcher);
    left_.insert(result.left.begin(), result.left.end());
    return result;
}

// An agent that fails is tried once more with the modes that its files have here.
CommandResult AgentChecker::executeWithModes(const std::string& command, const std::string& input,
                                             Watcher* watcher) {
    CommandResult first = execute(command, input, watcher);
    if (first.isGood() || first.timedOut || executables_.empty() || report_.isTold(rules::kModes)) {
        return first;
    }
    deployment_.setExecutable(executables_, true);
    CommandResult second = execute(command, input, watcher);
    if (!second.isGood()) {
        deployment_.setExecutable(executables_, false);
        return first;
    }
    Findings findings(report_, rules::kModes);
    findings.problem("the agent works only where files of it are executable" + said(first));
    findings.tell({});
    return second;
}

std::string AgentChecker::faultOf(const CommandResult& result) const {
    const std::string limit = std::to_string(request_.timeLimit.count()).append(" s");
    if (result.keptOpen) {
        return "has ended, but something that it left behind kept its output open; it was ended after " +
               limit;
    }
    if (result.timedOut) {
        return std::string("was still running after ")
            .append(limit)
            .append(" and was ended")
            .append(said(result));
    }
    if (result.exceeded) {
        return "printed more than 16 MiB and was ended";
    }
    if (result.status != 0) {
        return std::string("ended with ").append(std::to_string(result.status)).append(said(result));
    }
    return {};
}

std::string AgentChecker::faultOfPasswordRun(const CommandResult& result) const {
    if (const std::string fault = faultOf(result); !fault.empty()) {
        return "with a line in standard input, which a sudo that does not ask leaves there, it " + fault;
    }
    const bool isRepeated = contains(result.out, password_) || contains(result.err, password_);
    return isRepeated ? "it repeats a line of standard input, which may be the password of sudo" : "";
}

bool AgentChecker::checkStatus() {
    const std::string command = statusCommand(*agent_, deployment_.directory());
    const CommandResult result = executeWithModes(command, "");
    Findings status(report_, rules::kStatus);
    if (const std::string fault = faultOf(result); !fault.empty()) {
        status.problem("--get-status " + fault);
    }
    if (!status.tell("--get-status ends with 0")) {
        return false;
    }
    Findings noise(report_, rules::kStatusNoise);
    Findings document(report_, rules::kStatusDocument);
    const std::optional<std::size_t> noiseSize = noiseBefore(result.out, "agentstatus");
    if (noiseSize) {
        noise.problem(
            std::string("'").append(result.out, 0, *noiseSize).append("' stands before the answer"));
    } else if (const std::string fault = faultOfText(result.out); !fault.empty()) {
        document.problem("the answer is no document: " + fault);
    }
    const std::string answer = result.out.substr(noiseSize.value_or(0));
    const std::optional<std::string> file = childOfRoot(answer, "agentstatus", "statusfile");
    if (!document.hasProblem() && file != files::getRemoteDumpingStatusFileName()) {
        document.warning(file ? "the status file is '" + *file + "', where dumping-status.xml is read"
                              : "the answer is no agentstatus with a statusfile");
    }
    noise.tell("nothing stands before the answer");
    document.tell("the answer is well-formed");
    Findings password(report_, rules::kStatusPassword);
    if (const std::string fault = faultOfPasswordRun(execute(command, password_ + "\n")); !fault.empty()) {
        password.problem("--get-status: " + fault);
    }
    password.tell("--get-status does not mind a line in standard input");
    return true;
}

CommandResult AgentChecker::runDumper(const std::string& firstLine) {
    StatusWatch watch(deployment_.directory(), login_);
    const std::string command = dumperCommand(*agent_, deployment_.directory(), request_.dump, false);
    const std::string input = firstLine + request_.dump.stdinText;
    if (report_.isTold(rules::kDump)) {
        return execute(command, input, &watch);
    }
    CommandResult result = executeWithModes(command, input, &watch);
    watch.look();
    Findings dump(report_, rules::kDump);
    if (const std::string fault = faultOf(result); !fault.empty()) {
        dump.problem("the dumper " + fault);
    }
    if (dump.tell(request_.hasNames ? "the selected objects are dumped" : "everything is dumped")) {
        tellDumpingStatus(watch);
    }
    return result;
}

void AgentChecker::tellDumpingStatus(StatusWatch& watch) {
    Findings status(report_, rules::kDumpingStatus);
    if (!watch.wasSeen()) {
        status.warning("there is none, so that nobody can follow the dump");
    } else if (watch.wasUnreadable()) {
        status.problem("the login cannot read it");
    } else if (!watch.fault().empty()) {
        status.problem(watch.fault());
    }
    status.tell("dumping-status.xml is whole and readable");
    Findings replaced(report_, rules::kStatusReplaced);
    if (watch.wasWrittenInPlace()) {
        replaced.problem("dumping-status.xml is written in place");
    }
    if (watch.wasMissing()) {
        replaced.problem("there is no dumping-status.xml for a moment before the next one");
    }
    replaced.tell("dumping-status.xml is only replaced as a whole");
}

std::string AgentChecker::faultOfDump() const {
    const std::string path = deployment_.directory() + "/" + kDumpName;
    std::error_code failure;
    if (!fs::is_regular_file(path, failure)) {
        return "the dumper has left no dump.xml";
    }
    // The program gives it to the login itself where root has made it.
    if (!login_.isRoot() && !login_.mayRead(deployment_.directory(), kDumpName)) {
        return "the login cannot read dump.xml";
    }
    const std::string fault = faultOfFile(path);
    return fault.empty() ? "" : "dump.xml is not whole: " + fault;
}

bool AgentChecker::checkDump() {
    if (!runDumper("").isGood()) {
        return false;
    }
    Findings dump(report_, rules::kDumpDocument);
    if (const std::string fault = faultOfDump(); !fault.empty()) {
        dump.problem(fault);
    }
    if (!dump.tell("dump.xml is whole")) {
        return false;
    }
    login_.own(deployment_.directory() + "/" + kDumpName);  // as the program does where root has made it
    return true;
}

bool AgentChecker::checkFirstList() {
    const std::string command = contentListCommand(*agent_, deployment_.directory());
    const CommandResult result = executeWithModes(command, "");
    Findings findings(report_, rules::kList);
    if (const std::string fault = faultOf(result); !fault.empty() && !result.exceeded) {
        findings.problem("--get-content-list " + fault);
    }
    if (!findings.tell("--get-content-list ends with 0")) {
        return false;
    }
    const Rule* broken = nullptr;
    std::string reason;
    const bool isRead = readList(result, list_, broken, reason);
    const std::vector<std::pair<const Rule*, const char*>> sound = {
        {&rules::kListLength, "the list is not too long"},
        {&rules::kListNoise, "nothing stands before the list"},
        {&rules::kListDocument, "it is a content list"},
        {&rules::kListNumbers, "sizes are numbers"}};
    for (const auto& [rule, good] : sound) {
        if (rule == broken) {
            Findings one(report_, *rule);
            one.problem(reason);
            one.tell({});
            break;
        }
        report_.tell(*rule, Verdict::kOk, good);
    }
    if (!isRead) {
        return false;
    }
    const int problems = report_.problems();
    listIsGood_ = checkList(list_, deployment_.directory(), login_, report_);
    listIsSound_ = report_.problems() == problems;
    Findings password(report_, rules::kListPassword);
    if (const std::string fault = faultOfPasswordRun(execute(command, password_ + "\n")); !fault.empty()) {
        password.problem("--get-content-list: " + fault);
    }
    password.tell("--get-content-list does not mind a line in standard input");
    return true;
}

// The agent has run since the list was judged, and may have put a link in the place of a directory.
void AgentChecker::remove(const std::string& path) {
    if (!liesBelow(deployment_.directory(), path)) {
        return;
    }
    execute(removeCommand(deployment_.directory() + "/" + path), "");
}

void AgentChecker::checkRemoval() {
    if (!listIsGood_) {
        report_.skip(rules::kListRemoved, "what is listed cannot be fetched");
        return;
    }
    std::string fault;
    std::set<std::string> removed;
    for (const DumpFile& file : list_.files) {
        remove(file.name);
        removed.insert(file.name);
        if (removed.size() == 1) {
            fault = faultAfter(removed);
        }
    }
    if (fault.empty() && removed.size() > 1) {
        fault = faultAfter(removed);
    }
    Findings findings(report_, rules::kListRemoved);
    if (!fault.empty()) {
        findings.problem(fault);
    }
    findings.tell("what was removed is not listed again, the rest is");
}

std::string AgentChecker::faultAfter(const std::set<std::string>& removed) {
    const std::set<std::string> before = list_.paths();
    const std::string when =
        removed.size() == before.size() ? "when all is fetched, " : "when a file is fetched, ";
    ReadList now;
    if (const std::string fault = askForList(now); !fault.empty()) {
        return when + fault;
    }
    const std::set<std::string> after = now.paths();
    for (const std::string& path : before) {
        if (after.contains(path) && removed.contains(path)) {
            return "'" + path + "' is still listed when it is fetched";
        }
        if (!after.contains(path) && !removed.contains(path)) {
            return "'" + path + "' is not listed any more, and not fetched yet";
        }
    }
    const std::string fault = totalIsTrue_ ? faultOfTotal(now, deployment_.directory()) : "";
    return fault.empty() ? "" : when + fault;
}

std::string AgentChecker::askForList(ReadList& list) {
    const CommandResult result = execute(contentListCommand(*agent_, deployment_.directory()), "");
    if (const std::string fault = faultOf(result); !fault.empty()) {
        return "--get-content-list " + fault;
    }
    const Rule* broken = nullptr;
    std::string reason;
    return readList(result, list, broken, reason) ? "" : "the list is none any more: " + reason;
}

std::string AgentChecker::dumpAgain(ReadList& list) {
    if (const std::string fault = faultOf(runDumper("")); !fault.empty()) {
        return "the dumper " + fault;
    }
    if (std::string fault = faultOfDump(); !fault.empty()) {
        return fault;
    }
    login_.own(deployment_.directory() + "/" + kDumpName);
    return askForList(list);
}

std::string AgentChecker::faultOfPasswordDump(const CommandResult& result) const {
    if (std::string fault = faultOfPasswordRun(result); !fault.empty()) {
        return fault;
    }
    if (std::string fault = faultOfDump(); !fault.empty()) {
        return fault;
    }
    for (const std::string& name : {files::getRemoteDumpingStatusFileName(), std::string(kDumpName)}) {
        if (contains(contentOf(deployment_.directory() + "/" + name), password_)) {
            return "the first line of standard input, which may be the password of sudo, gets into " + name;
        }
    }
    return {};
}

std::string AgentChecker::faultOfDumpOverDump() {
    ReadList now;
    if (std::string fault = dumpAgain(now); !fault.empty()) {
        return fault;
    }
    std::ostringstream unheard;
    Report report(unheard);
    listIsGood_ = checkList(now, deployment_.directory(), login_, report);
    if (listIsSound_ && report.problems() != 0) {
        return report.firstProblem();
    }
    list_ = now;
    totalIsTrue_ = faultOfTotal(list_, deployment_.directory()).empty();
    return {};
}

void AgentChecker::checkFurtherDumps() {
    Findings over(report_, rules::kDumpAgain);
    const std::set<std::string> first = list_.paths();
    if (const std::string fault = faultOfDumpOverDump(); !fault.empty()) {
        over.problem(kOverDump + fault);
        over.tell({});
        return;
    }
    checkRemoval();
    checkPasswordDump(list_.paths() == first, over);
}

// Whether the line is to blame shows in a dump without it.
void AgentChecker::checkPasswordDump(bool isSteady, Findings& over) {
    const std::string withLine =
        "with another line before the lists, which a sudo that does not ask leaves there, ";
    const std::set<std::string> before = list_.paths();
    ReadList now;
    std::string fault = faultOfPasswordDump(runDumper(password_ + "\n"));
    if (const std::string ofList = askForList(now); fault.empty() && !ofList.empty()) {
        fault = withLine + ofList;
    }
    if (!fault.empty() || (isSteady && now.paths() != before)) {
        ReadList without;
        if (const std::string ofDump = dumpAgain(without); !ofDump.empty()) {
            over.problem((listIsGood_ ? kOverRest : kOverDump) + ofDump);
        }
        isSteady = isSteady && without.paths() == before;
        if (fault.empty() && isSteady) {
            fault = withLine + "the dumper makes other files";
        }
    }
    if (!over.tell("further dumps succeed")) {
        return;
    }
    Findings password(report_, rules::kDumpPassword);
    if (!fault.empty()) {
        password.problem(fault);
    } else if (!isSteady) {
        password.warning("each dump makes other files, so that nothing can be compared");
    }
    password.tell("the dumper does not mind a line before the lists");
}

}  // namespace korva::agent_check
