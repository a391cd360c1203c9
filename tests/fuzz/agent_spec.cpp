// SPDX-License-Identifier: Apache-2.0
#include "agents/agent_spec.h"

#include "fuzz/error_report.h"

#include <array>

namespace {

using korva::Agent;
using korva::fuzz::require;

constexpr std::array<const char*, Agent::kParameterCount> kKeys = {
    "Description", "EntryPoint", "DocumentType", "Stylesheet", "Interpreter"};

std::string specOf(const Agent::Values& values) {
    std::string spec;
    for (std::size_t index = 0; index < values.size(); ++index) {
        spec += std::string(kKeys.at(index)) + ": " + values.at(index) + "\n";
    }
    return spec;
}

Agent::Values parse(const std::string& text) {
    return Agent::parse(korva::fuzz::fileOf(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace

/// The input is a spec file.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const Agent::Values values = parse(korva::fuzz::textOf(data, size));
        for (const std::string& value : values) {
            require(value.find('\n') == std::string::npos, "a value is part of a line");
        }
        require(parse(specOf(values)) == values, "values written anew are read as they were");
    } catch (const korva::Exc<&Agent::ParseFailed>& error) {
        korva::fuzz::requireReport(error);
    }
    return 0;
}
