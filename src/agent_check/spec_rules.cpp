// SPDX-License-Identifier: Apache-2.0
#include "agent_check/spec_rules.h"

#include "agent_check/deployment.h"
#include "commons/filesystem.h"
#include "commons/sh_quote.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <utility>
#include <vector>

namespace korva::agent_check {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBlanks = " \t\r\f\v";
constexpr const char* kPathWithoutOne = "/usr/bin:/bin";

bool checkFile(const std::string& spec, Report& report) {
    Findings findings(report, rules::kSpecFile);
    if (!check_input_file(spec.c_str())) {
        findings.problem("control/spec is no regular file: tallowick does not know the agent");
    } else if (!std::ifstream(spec)) {
        findings.problem("control/spec cannot be read");
    }
    return findings.tell("control/spec is a regular file");
}

void checkKeys(const std::string& spec, Report& report) {
    Findings findings(report, rules::kSpecKeys);
    std::set<std::string> keys;
    std::ifstream file(spec);
    for (std::string line; std::getline(file, line);) {
        const std::string key = line.substr(0, line.find(':'));
        if (!line.empty() && !keys.insert(key).second) {
            findings.warning(key + " is given twice");
        }
    }
    findings.tell("each key is given once");
}

bool checkValues(const Agent& agent, Report& report) {
    Findings findings(report, rules::kSpecValues);
    const auto endsInBlank = [](const std::string& value) {
        return !value.empty() && value.find_last_not_of(kBlanks) != value.size() - 1;
    };
    const auto kind = [](const std::string& value) {
        return value.back() == '\r' ? std::string(" ends in a carriage return")
                                    : std::string(" ends in a blank");
    };
    for (const auto& [key, value] :
         {std::pair("EntryPoint", agent.entryPoint()), std::pair("Interpreter", agent.interpreter())}) {
        if (endsInBlank(value)) {
            findings.problem(key + kind(value) + ", so that it names nothing");
        }
    }
    for (const auto& [key, value] :
         {std::pair("Description", agent.description()), std::pair("DocumentType", agent.documentType()),
          std::pair("Stylesheet", agent.stylesheet())}) {
        if (endsInBlank(value)) {
            findings.warning(key + kind(value));
        }
    }
    return findings.tell("no value ends in a blank");
}

bool isPlainWord(const std::string& word) {
    return sh_quote(word) == word;
}

bool leadsInto(const std::string& directory, const std::string& path) {
    std::error_code failure;
    return isWithin(fs::canonical(path, failure), fs::canonical(directory, failure));
}

bool isExecutable(const std::string& path) {
    return check_input_file(path.c_str()) && access(path.c_str(), X_OK) == 0;
}

bool isOnPath(const std::string& program) {
    const char* const path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): there is one thread
    std::vector<std::string> directories;
    const std::string places = path == nullptr ? kPathWithoutOne : path;
    boost::algorithm::split(directories, places, boost::algorithm::is_any_of(":"));
    return std::any_of(directories.begin(), directories.end(),
                       [&](const std::string& directory) { return isExecutable(directory + "/" + program); });
}

}  // namespace

std::unique_ptr<Agent> checkSpec(const std::string& name, const std::string& agentDirectory, Report& report) {
    const std::string spec = agentDirectory + "/control/spec";
    if (!checkFile(spec, report)) {
        return nullptr;
    }
    std::unique_ptr<Agent> agent;
    Findings findings(report, rules::kSpecGrammar);
    try {
        agent = std::make_unique<Agent>(name, spec);
    } catch (const Exc<&Agent::ParseFailed>& failure) {
        findings.problem(failure.what());
    }
    if (!findings.tell("every line is understood")) {
        return nullptr;
    }
    checkKeys(spec, report);
    return checkValues(*agent, report) ? std::move(agent) : nullptr;
}

bool checkEntryPoint(const Agent& agent, const std::string& deployed, Report& report) {
    Findings findings(report, rules::kEntryPoint);
    const std::string& entry = agent.entryPoint();
    const std::string path = deployed + "/" + entry;
    if (entry.empty()) {
        findings.problem("the spec file names none");
    } else if (!isPlainWord(entry)) {
        findings.problem("'" + entry + "' reaches a shell without quotes and is not what it reads there");
    } else if (!check_input_file(path.c_str())) {
        findings.problem("'" + entry + "' is no file of the deployed agent");
    } else if (!leadsInto(deployed, path)) {
        findings.problem("'" + entry + "' leads out of the agent directory");
    }
    return findings.tell(entry + " is a file of the agent");
}

bool checkInterpreter(const Agent& agent, const std::string& deployed, Report& report) {
    Findings findings(report, rules::kInterpreter);
    const std::string interpreter = agent.interpreter();
    if (!isPlainWord(interpreter)) {
        findings.problem("'" + interpreter + "' is no single word: only --get-status would be run with it");
    } else if (interpreter.find('/') == std::string::npos) {
        if (!isOnPath(interpreter)) {
            findings.problem("'" + interpreter + "' is not on the PATH of this machine");
        }
    } else if (!isExecutable(fs::path(deployed) / interpreter)) {
        findings.problem("'" + interpreter + "' is no program on this machine");
    }
    return findings.tell(interpreter + " is here");
}

}  // namespace korva::agent_check
