// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ssh/ssh-transfer.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace korva::test {

/// What a remote command does.
struct FakeResult {
    int status = 0;
    std::string out = {};
    std::string err = {};
    /// Takes place while the command runs; what it throws ends the command.
    std::function<void()> meanwhile = [] {};
};

/// Stands in for class Ssh (link seam): every connection, command and transfer is recorded here and does what
/// is scripted here. One at a time.
class FakeSsh {
  public:
    struct Connection {
        std::string host;
        std::string login;
        std::string password;
        bool noEncryption;
        unsigned short port;
    };
    struct Command {
        std::string line;
        std::string input;
        bool quietOutput;
        bool quietInput;
    };

    FakeSsh();
    FakeSsh(const FakeSsh&) = delete;
    FakeSsh& operator=(const FakeSsh&) = delete;
    ~FakeSsh();

    /// The command lines in their order; a download is "get REMOTE" or "get REMOTE LOCAL", an upload "put
    /// REMOTE LOCAL" with the local file as its input.
    std::vector<std::string> lines() const;

    // The script.
    std::map<std::string, FakeResult> results;  ///< by line; what is missing succeeds without output
    std::function<void()> onConnect = [] {};

    // What was seen.
    std::vector<Connection> connections;
    std::vector<Command> commands;
    Ssh* open = nullptr;  ///< the present connection

    // For the functions that stand in.
    int run(const Command& command, std::ostream& out, std::ostream& err, Ssh::Counter& counter);
};

}  // namespace korva::test
