// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

#include <array>
#include <map>
#include <memory>
#include <string>

namespace korva {

KORVA_ERROR_TAG(AgentNotFound, "Agent %1% was not found or does not contain proper spec file")

/// A migration agent: a directory of scripts that a spec file describes.
class Agent {
  public:
    /// What is wrong with a spec file, and where.
    static ErrorKind ParseFailed(bool) { return {"Agent::ParseFailed", "%1%"}; }

    enum Parameter { kDescription, kEntryPoint, kDocumentType, kStylesheet, kInterpreter, kParameterCount };
    using Values = std::array<std::string, kParameterCount>;

    /// Reads a spec file: lines of "Key: value". A file that cannot be opened gives empty values. Throws
    /// ParseFailed for a line without a colon and for an unknown key; there are no comments.
    static Values parse(const std::string& specPath);

    Agent(std::string name, const std::string& specPath);

    const std::string& name() const { return name_; }
    const std::string& description() const { return values_[kDescription]; }
    /// The script to be run, relative to the agent directory.
    const std::string& entryPoint() const { return values_[kEntryPoint]; }
    const std::string& documentType() const { return values_[kDocumentType]; }
    const std::string& stylesheet() const { return values_[kStylesheet]; }
    /// What runs the entry point: "perl" unless the spec file says otherwise.
    std::string interpreter() const;

    void logContents() const;

  private:
    std::string name_;
    Values values_;
};

/// Finds agents by name; each spec file is parsed once.
class AgentsFactory {
  public:
    using Agents = std::map<std::string, std::shared_ptr<Agent>>;

    /// Throws AgentNotFound; the reason is in the log.
    std::shared_ptr<Agent> getAgent(const std::string& name);
    /// Every agent with a proper spec file.
    const Agents& getAllAgents();
    /// Whether the agent was found, parsed and stored.
    bool parseAgent(const std::string& name);

  private:
    Agents agents_;
};

/// The one factory of the process.
AgentsFactory& theAgentsFactory();

}  // namespace korva
