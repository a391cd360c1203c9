// SPDX-License-Identifier: Apache-2.0
// commands HOST PORT LOGIN COUNT COMMAND
//
// Runs COMMAND so many times over one connection of the program's own class, and prints the milliseconds of
// the set-up and of every command, a line each. The password comes from OVN_PASSWORD; the log is configured
// by the product's own file, which the environment names as LOG_PROPERTIES, and goes to LOG_FILE_NAME.
#include "commons/discard_stream.h"
#include "environment.h"
#include "log_setup.h"
#include "ssh/ssh-transfer.h"
#include "stopwatch.h"

#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using korva::Ssh;

void runCommands(char** argv) {
    configureLog();
    const std::string command = argv[5];
    std::vector<double> times;
    const Stopwatch setUp;
    Ssh ssh(argv[1], argv[3], variable("OVN_PASSWORD"), false,
            static_cast<unsigned short>(std::stoi(argv[2])));
    times.push_back(setUp.milliseconds());
    for (int left = std::stoi(argv[4]); left > 0; --left) {
        korva::DiscardStream discarded;
        const Stopwatch stopwatch;
        if (ssh.exec(command, discarded, discarded, false, Ssh::null_counter) != 0) {
            throw std::runtime_error("the command has failed");
        }
        times.push_back(stopwatch.milliseconds());
    }
    for (const double time : times) {
        std::cout << time << '\n';
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::cerr << "usage: commands HOST PORT LOGIN COUNT COMMAND\n";
        return 2;
    }
    try {
        runCommands(argv);
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "commands: " << e.what() << "\n";
        return 1;
    }
}
