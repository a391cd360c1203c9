// SPDX-License-Identifier: Apache-2.0
#include "agents/agent_spec.h"

#include "commons/log_line.h"
#include "commons/product_paths.h"

#include <log4cpp/Category.hh>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>
#include <utility>

namespace korva {
namespace {

constexpr const char* kSourceName = "./agent_spec";

constexpr std::array<std::string_view, Agent::kParameterCount> kKeys = {
    "Description", "EntryPoint", "DocumentType", "Stylesheet", "Interpreter"};

constexpr const char* kDefaultInterpreter = "perl";

log4cpp::Category& agentCategory() {
    return log4cpp::Category::getInstance("k.Agent");
}

log4cpp::Category& factoryCategory() {
    return log4cpp::Category::getInstance("k.AgentsFactory");
}

std::string text(const boost::format& message) {
    return message.str();
}

// White space at the end belongs to the value, a carriage return too.
std::string valueOf(std::string_view afterColon) {
    const std::size_t begin = afterColon.find_first_not_of(" \t\n\v\f\r");
    return std::string(begin == std::string_view::npos ? std::string_view() : afterColon.substr(begin));
}

}  // namespace

Agent::Values Agent::parse(const std::string& specPath) {
    Values values;
    std::ifstream spec(specPath);
    std::string line;
    for (int number = 1; std::getline(spec, line); ++number) {
        if (line.empty()) {
            continue;
        }
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) {
            throw KORVA_EXC(Agent::ParseFailed) %
                text(boost::format("%1%:%2%: Expected '<token>: <value>', got '%3%'") % specPath % number %
                     line);
        }
        const std::string key = line.substr(0, colon);
        const auto known = std::find(kKeys.begin(), kKeys.end(), key);
        if (known == kKeys.end()) {
            throw KORVA_EXC(Agent::ParseFailed) %
                text(boost::format("Illegal parameter found in %1%: %2%") % specPath % key);
        }
        values[static_cast<std::size_t>(known - kKeys.begin())] =
            valueOf(std::string_view(line).substr(colon + 1));
    }
    if (spec.bad()) {  // half of an agent must not pass for the whole
        throw KORVA_EXC(Agent::ParseFailed) % (specPath + " cannot be read");
    }
    return values;
}

Agent::Agent(std::string name, const std::string& specPath)
    : name_(std::move(name)), values_(parse(specPath)) {
    debugLine(agentCategory()) << "Agent " << name_;
    logContents();
}

std::string Agent::interpreter() const {
    return values_[kInterpreter].empty() ? kDefaultInterpreter : values_[kInterpreter];
}

void Agent::logContents() const {
    debugLine(agentCategory()) << "Description: " << description();
    if (!entryPoint().empty()) {
        debugLine(agentCategory()) << "EntryPoint: " << files::agents::getDir() << "/" << name_ << "/control/"
                                   << entryPoint();
    }
    if (!documentType().empty()) {
        debugLine(agentCategory()) << "DocumentType: " << documentType();
    }
    debugLine(agentCategory()) << "Interpreter: " << interpreter();
}

std::shared_ptr<Agent> AgentsFactory::getAgent(const std::string& name) {
    const auto known = agents_.find(name);
    if (known != agents_.end()) {
        return known->second;
    }
    if (!parseAgent(name)) {
        throw KORVA_EXC(AgentNotFound) % name;
    }
    return agents_.at(name);
}

const AgentsFactory::Agents& AgentsFactory::getAllAgents() {
    debugLine(factoryCategory()) << "Parsing available agents info";
    std::error_code unreadable;  // a directory that cannot be read holds no agents
    for (const auto& entry : std::filesystem::directory_iterator(files::agents::getDir(), unreadable)) {
        if (entry.is_directory(unreadable)) {
            parseAgent(entry.path().filename().string());
        }
    }
    return agents_;
}

bool AgentsFactory::parseAgent(const std::string& name) {
    debugLine(factoryCategory()) << "Parsing " << name;
    const std::filesystem::path directory = files::agents::getDir() + "/" + name;
    std::error_code unreadable;
    if (!std::filesystem::is_directory(directory, unreadable)) {
        return false;
    }
    const std::filesystem::path spec = directory / "control" / "spec";
    if (!std::filesystem::is_regular_file(spec, unreadable)) {
        errorLine(factoryCategory()) << spec.string() << " is not a regular file";
        return false;
    }
    try {
        agents_.emplace(name, std::make_shared<Agent>(name, spec.string()));
    } catch (const Exc<&Agent::ParseFailed>& e) {  // to its user such an agent is one that does not exist
        errorLine(factoryCategory()) << spec.string() << " is not a valid agent spec file";
        errorLine(factoryCategory()) << "Unable to parse spec file: " << e.what();
        return false;
    }
    return true;
}

AgentsFactory& theAgentsFactory() {
    static AgentsFactory factory;
    return factory;
}

}  // namespace korva
