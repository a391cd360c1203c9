// SPDX-License-Identifier: Apache-2.0
// counts WORK COUNT DIRECTORY
//
// Does a piece of the program's work COUNT times, for its instructions to be counted: what one time takes is
// the difference between two counts, divided. Files lie below DIRECTORY. The log is configured by the
// product's own file, which the environment names as LOG_PROPERTIES. WORK is
//
//   save    one save of the status document of a transfer
//   exec    one remote command, without what libssh2 does for it
//   list    one entry of a content list
//   quote   one byte of a word for the shell
#include "commons/discard_stream.h"
#include "commons/session.h"
#include "commons/sh_quote.h"
#include "log_setup.h"
#include "ssh/ssh-transfer.h"
#include "xml/agent_file_list.h"
#include "xml/migration_status.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using korva::Ssh;

void save(int count) {
    const auto status = korva::createMigrationStatusFile();
    status->setAgentParams("source.example");
    status->setTransferTotals("2000", "8589934592");
    status->setCurrentFile("sites/shop.example/httpdocs.tar.gz", "4294967296");
    for (int i = 0; i < count; ++i) {
        status->setTransferSpeed("123456789");
        status->setTransferSizeLeft(std::to_string(8000000000 + i));
        status->setTransferCurrentFileSizeLeft(std::to_string(4000000000 + i));
        status->saveFile();
    }
}

/// Something to connect to; it never answers.
class Listener {
  public:
    Listener() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(fd_, generic, size) != 0 || listen(fd_, 1) != 0 || getsockname(fd_, generic, &size) != 0) {
            throw std::runtime_error("nothing to connect to");
        }
        port_ = ntohs(address.sin_port);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener() { close(fd_); }
    unsigned short port() const { return port_; }

  private:
    int fd_;
    unsigned short port_ = 0;
};

void exec(int count) {
    const Listener listener;
    Ssh ssh("127.0.0.1", "login", "password", false, listener.port());
    for (int i = 0; i < count; ++i) {
        korva::DiscardStream discarded;
        ssh.exec("sh -c cd\\ /home/mover/agent\\;\\ rm\\ /home/mover/agent/sites/0001.tar.gz", discarded,
                 discarded, false, Ssh::null_counter);
    }
}

void list(int count) {
    std::string text = "<contentlist size=\"8192\" unpacked=\"8192\">\n";
    for (int i = 0; i < count; ++i) {
        text += "<file size=\"4096\" md5sum=\"0123456789abcdef0123456789abcdef\">sites/shop.example/" +
                std::to_string(1000000 + i) + ".tar.gz</file>\n";
    }
    korva::getFileList(text + "</contentlist>\n");
}

void quote(int count) {
    const std::string mixture = "/var/www/a file's name (copy) & more-";
    std::string word;
    while (word.size() < static_cast<std::size_t>(count)) {
        word += mixture;
    }
    word.resize(static_cast<std::size_t>(count));
    korva::sh_quote(word);
}

void work(char** argv) {
    const std::map<std::string, void (*)(int)> known = {
        {"save", save}, {"exec", exec}, {"list", list}, {"quote", quote}};
    const korva::SessionLifetimeController session(argv[3]);
    setenv("LOG_FILE_NAME", korva::theSession->getLogFileName().c_str(), 1);
    configureLog();
    known.at(argv[1])(std::stoi(argv[2]));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: counts save|exec|list|quote COUNT DIRECTORY\n";
        return 2;
    }
    try {
        work(argv);
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "counts: " << e.what() << "\n";
        return 1;
    }
}
