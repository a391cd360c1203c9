// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"
#include "tallowick/options.h"

#include <string>
#include <vector>

namespace korva {

/// What the remote dumper is given: its arguments in order, and the text of its standard input, on which
/// lists of names travel.
struct DumperInput {
    std::vector<std::string> arguments;
    std::string stdinText;
};

/// The dumper's input for --dump-selected and --dump-all. Throws the document layer's errors when the
/// selected-objects file cannot be read.
DumperInput buildDumperInput(const config& cfg);

/// Appends the selection of --dump-selected: names, filter, compression and flags.
void prepareDumpOptions(const config& cfg, std::vector<std::string>& arguments, std::string& stdinText);

/// Reads a selected-objects file; what it does not mention stays as it is. Names are appended, joined by
/// commas.
void parseSelectedObjectsFile(const std::string& path, std::string& domains, std::string& clients,
                              std::string& resellers, opt_backup_filter& filter,
                              opt_backup_compress& compress, bool& server, bool& adminInfo, bool& license);

/// Merges the command line into a selection: names are appended, a filter or compression that was given
/// replaces the other, and the flags are always those of the command line.
void getSelectedObjectsFromConfig(const config& cfg, std::string& domains, std::string& clients,
                                  std::string& resellers, opt_backup_filter& filter,
                                  opt_backup_compress& compress, bool& server, bool& adminInfo,
                                  bool& noLicense);

/// Writes an error of a single node to the debug log.
void xmlErrorFunc(const ExTraceable& error);

}  // namespace korva
