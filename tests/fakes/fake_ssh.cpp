// SPDX-License-Identifier: Apache-2.0
#include "fakes/fake_ssh.h"

#include "commons/output_file.h"
#include "commons/socket.h"
#include "commons/stream_errors.h"
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

int FakeSsh::run(const Command& command, std::ostream& out, std::ostream& err, Ssh::Counter& counter) {
    constexpr std::size_t kPieceSize = 65536;
    commands.push_back(command);
    const FakeResult result = results[command.line];
    result.meanwhile();
    for (std::size_t offset = 0; offset < result.out.size(); offset += kPieceSize) {
        const std::string piece = result.out.substr(offset, kPieceSize);
        counter(static_cast<int>(piece.size()));
        if (!(out << piece)) {
            throw Exc<&StreamWrite>("context", "file", 1);
        }
    }
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
              bool quietOutput, bool quietInput, Counter& counter) {
    return fake().run({command, readAll(in), quietOutput, quietInput}, out, err, counter);
}

int Ssh::exec(const std::string& command, std::ostream& out, std::ostream& err, bool quietOutput,
              Counter& counter) {
    std::istringstream noInput;
    return exec(command, noInput, out, err, quietOutput, false, counter);
}

int Ssh::get(std::ostream& out, std::ostream& err, const std::string& remotePath, Counter& counter) {
    const int status = fake().run({"get " + remotePath, "", true, true}, out, err, counter);
    if (status == 0 && !out.flush()) {
        throw Exc<&StreamWrite>("context", "file", 1);
    }
    return status;
}

int Ssh::get(const std::string& localPath, const std::string& remotePath) {
    OutputFile file(localPath);
    std::ostringstream err;
    const int status =
        fake().run({"get " + remotePath + " " + localPath, "", true, true}, file, err, null_counter);
    if (status == 0) {
        file.close();
    } else if (file.isOpen()) {
        std::remove(localPath.c_str());
    }
    return status;
}

void Ssh::put(const std::string& localPath, const std::string& remotePath) {
    std::ifstream file(localPath);
    std::ostringstream discarded;
    fake().run({"put " + remotePath + " " + localPath, readAll(file), true, true}, discarded, discarded,
               null_counter);
}

void Ssh::serveAlarm() {
    if (Alarm* const alarm = alarm_) {
        alarm->doAlarm();
    }
}

}  // namespace korva
