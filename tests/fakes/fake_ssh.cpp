// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_ssh.h"

#include "commons/socket.h"
#include "ssh/libssh2pp.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace korva {
namespace test {
namespace {

FakeSsh* current = nullptr;

FakeSsh& fake() {
    if (current == nullptr) {
        throw std::logic_error("Ssh was used without a FakeSsh");
    }
    return *current;
}

std::string readAll(std::istream& in) {
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

FakeSsh::FakeSsh() {
    current = this;
}

FakeSsh::~FakeSsh() {
    current = nullptr;
}

std::vector<std::string> FakeSsh::lines() const {
    std::vector<std::string> all;
    for (const Command& command : commands) {
        all.push_back(command.line);
    }
    return all;
}

int FakeSsh::run(const Command& command, std::ostream& out, std::ostream& err) {
    commands.push_back(command);
    const FakeResult result = results[command.line];
    result.meanwhile();
    out << result.out;
    err << result.err;
    return result.status;
}

}  // namespace test

using test::fake;
using test::readAll;

Ssh::NullCounter Ssh::null_counter;

Ssh::Ssh(const std::string& host, const std::string& login, const std::string& password, bool noEncryption,
         unsigned short port) {
    fake().connections.push_back({host, login, password, noEncryption, port});
    fake().onConnect();
    secrets_.add(password);
    fake().open = this;
}

Ssh::~Ssh() {
    fake().open = nullptr;
}

int Ssh::exec(const std::string& command, std::istream& in, std::ostream& out, std::ostream& err,
              bool quietOutput, bool quietInput, Counter& /*counter*/) {
    return fake().run({command, readAll(in), quietOutput, quietInput}, out, err);
}

int Ssh::exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
              Counter& counter) {
    std::istringstream noInput;
    return exec(command, noInput, out, err, quietOutput, false, counter);
}

int Ssh::get(std::ostream& out, std::ostream& err, const std::string& remotePath, Counter& /*counter*/) {
    return fake().run({"get " + remotePath, "", true, true}, out, err);
}

int Ssh::get(const std::string& localPath, const std::string& remotePath) {
    std::ofstream file(localPath, std::ios::trunc);
    std::ostringstream err;
    const int status = fake().run({"get " + remotePath + " " + localPath, "", true, true}, file, err);
    file.close();
    if (status != 0) {
        std::remove(localPath.c_str());
    }
    return status;
}

void Ssh::serveAlarm() {
    if (Alarm* const alarm = alarm_) {
        alarm->doAlarm();
    }
}

}  // namespace korva
