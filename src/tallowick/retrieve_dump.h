// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "tallowick/actions.h"
#include "tallowick/dump_selection.h"

#include <string>

namespace korva {

/// Runs the agent's dumper on the source host, the dumping status refreshed meanwhile, and fetches the dump.
class RetrieveDumpAction : public Action {
  public:
    explicit RetrieveDumpAction(DumperInput input) : Action(true), input_(std::move(input)) {}
    void execute() override;

  private:
    void retrieve();
    void runDumper();
    void fetchDump(const std::string& remoteDump);

    DumperInput input_;
};

}  // namespace korva
