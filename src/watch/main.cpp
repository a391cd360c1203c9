// SPDX-License-Identifier: Apache-2.0
#include "watch/watch.h"

#include <getopt.h>
#include <langinfo.h>
#include <unistd.h>

#include <array>
#include <clocale>
#include <cstring>
#include <exception>
#include <iostream>
#include <tuple>

namespace {

constexpr const char* kUsage =
    "Usage: tallowick-watch [--once] SESSION-DIRECTORY\n"
    "\n"
    "Shows what a run of tallowick is doing, and how it has ended, from the files in\n"
    "its session directory. Nothing there is changed.\n"
    "\n"
    "On a terminal it goes on until q or Ctrl-C is pressed. Otherwise it prints a\n"
    "line for each change, and ends when the run ends, or the next one where none is\n"
    "going on.\n"
    "\n"
    "  --once    print what there is now, the cause of a failure first, and end\n"
    "  --help    print this text and end\n"
    "\n"
    "Exit status: 0 the run has succeeded, or q was pressed; 1 the run has failed; 2\n"
    "wrong usage, or nobody gets the output; 3 with --once, there is no outcome of a\n"
    "run.\n";

korva::Charset charset() {
    std::ignore = std::setlocale(LC_CTYPE, "");
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ? korva::Charset::kUnicode
                                                           : korva::Charset::kAscii;
}

int misuse() {
    std::cerr << "Try \"tallowick-watch --help\".\n";
    return korva::kWatchMisuse;
}

int watch(int argc, char** argv) {
    enum Option { kHelp = 1, kOnce };
    constexpr std::array<option, 3> kOptions = {
        {{"help", no_argument, nullptr, kHelp}, {"once", no_argument, nullptr, kOnce}, {}}};
    bool once = false;
    for (int each = 0; (each = getopt_long(argc, argv, "", kOptions.data(), nullptr)) != -1;) {
        if (each == kHelp) {
            std::cout << kUsage << std::flush;
            return std::cout ? korva::kWatchSuccess : korva::kWatchMisuse;
        }
        if (each != kOnce) {
            return misuse();
        }
        once = true;
    }
    if (argc - optind != 1 || argv[optind][0] == '\0') {
        std::cerr << "tallowick-watch: one session directory is to be named\n";
        return misuse();
    }
    const std::string directory = argv[optind];
    if (once) {
        return korva::printOnce(directory, charset());
    }
    return isatty(STDOUT_FILENO) == 1 ? korva::showScreen(directory, charset())
                                      : korva::printLines(directory, charset());
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return watch(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "tallowick-watch: " << error.what() << "\n";
    }
    return korva::kWatchMisuse;
}
