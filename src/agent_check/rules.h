// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>

namespace korva::agent_check {

/// Something that a migration relies on: what it is called, and what to do where it does not hold.
struct Rule {
    const char* name;
    const char* advice;
};

namespace rules {

inline constexpr Rule kSpecFile{"spec-file", "Put a regular file at control/spec of the agent."};
inline constexpr Rule kSpecGrammar{"spec-grammar",
                                   "Write lines of \"Key: value\" with keys that are known, nothing else."};
inline constexpr Rule kSpecKeys{"spec-keys", "Keep one line; the last one counts."};
inline constexpr Rule kSpecValues{"spec-values",
                                  "End the line behind the value; blanks and carriage returns belong to it."};
inline constexpr Rule kShared{"shared",
                              "Make a directory \"shared\" beside the agent, or name it with --shared."};
inline constexpr Rule kFiles{"files", "Make it a file that whoever starts tallowick can read."};
inline constexpr Rule kLinks{"links", "Put the file itself into the agent."};
inline constexpr Rule kSpecialFiles{"special-files", "Let the agent make it when it needs it."};
inline constexpr Rule kEntryPoint{
    "entry-point",
    "Let EntryPoint name a script of the agent by its path in the agent directory, "
    "without blanks or what a shell gives a meaning."};
inline constexpr Rule kInterpreter{"interpreter",
                                   "Name one program that is on the PATH of source hosts, without options."};
inline constexpr Rule kStatus{"status", "Print an answer to --get-status and end with 0."};
inline constexpr Rule kStatusNoise{"status-noise", "Print nothing before the document."};
inline constexpr Rule kStatusDocument{"status-document",
                                      "Answer with the document of tallowick-agent(7) and nothing else."};
inline constexpr Rule kStatusPassword{"status-password", "Leave standard input alone."};
inline constexpr Rule kDump{"dump", "Let the dumper end with 0 when the dump is made."};
inline constexpr Rule kModes{"modes", "Start it through its interpreter: modes do not travel."};
inline constexpr Rule kDumpDocument{"dump-document", "Leave dump.xml whole in the agent directory."};
inline constexpr Rule kDumpingStatus{"dumping-status",
                                     "Keep the file whole and readable for the login from the beginning."};
inline constexpr Rule kStatusReplaced{"status-replaced",
                                      "Write another file and rename it: a reader may come at any time."};
inline constexpr Rule kProcesses{"processes", "Wait for all that was started before the agent ends."};
inline constexpr Rule kList{"list", "Print the list for --get-content-list and end with 0."};
inline constexpr Rule kListLength{"list-length", "Pack into fewer files."};
inline constexpr Rule kListNoise{"list-noise", "Print nothing before the document."};
inline constexpr Rule kListDocument{"list-document",
                                    "Print a \"contentlist\", and let a library escape the text."};
inline constexpr Rule kListNumbers{
    "list-numbers", "Write sizes as bytes in decimal digits, the total as \"size\" of the root."};
inline constexpr Rule kListTotal{"list-total", "Sum up the sizes of what is listed."};
inline constexpr Rule kListPaths{"list-paths", "Make names out of ids, not out of what users chose."};
inline constexpr Rule kListNames{"list-names", "Let the last components of all paths differ."};
inline constexpr Rule kListFiles{
    "list-files", "List files that are there, by their paths in the agent directory, to the letter."};
inline constexpr Rule kListReadable{"list-readable", "Give it to the login, with its directories."};
inline constexpr Rule kListSizes{"list-sizes", "Take the size when the file is finished."};
inline constexpr Rule kListSums{"list-sums", "Sum up the finished file, with MD5."};
inline constexpr Rule kListSumCase{
    "list-sum-case", "Write the digits in lower case: else a copy that is here is not recognised."};
inline constexpr Rule kListDump{"list-dump", "List dump.xml, and migration.result if the agent makes one."};
inline constexpr Rule kListPassword{"list-password", "Leave standard input alone."};
inline constexpr Rule kListRemoved{"list-removed", "List what is there, at every call anew."};
inline constexpr Rule kDumpAgain{"dump-again", "Let a dump start over what an earlier one has left."};
inline constexpr Rule kDumpPassword{"dump-password", "Count the lines of standard input from its end."};

}  // namespace rules

/// In the order in which they are looked at.
inline constexpr std::array kAllRules = {
    &rules::kSpecFile,       &rules::kSpecGrammar,    &rules::kSpecKeys,     &rules::kSpecValues,
    &rules::kShared,         &rules::kFiles,          &rules::kLinks,        &rules::kSpecialFiles,
    &rules::kEntryPoint,     &rules::kInterpreter,    &rules::kStatus,       &rules::kStatusNoise,
    &rules::kStatusDocument, &rules::kStatusPassword, &rules::kDump,         &rules::kDumpingStatus,
    &rules::kStatusReplaced, &rules::kDumpDocument,   &rules::kList,         &rules::kListLength,
    &rules::kListNoise,      &rules::kListDocument,   &rules::kListNumbers,  &rules::kListPaths,
    &rules::kListNames,      &rules::kListFiles,      &rules::kListReadable, &rules::kListSizes,
    &rules::kListSums,       &rules::kListSumCase,    &rules::kListTotal,    &rules::kListDump,
    &rules::kListPassword,   &rules::kListRemoved,    &rules::kDumpAgain,    &rules::kDumpPassword,
    &rules::kModes,          &rules::kProcesses};

}  // namespace korva::agent_check
