// SPDX-License-Identifier: Apache-2.0
// The least that a program on libssh2 can do for the work of a run: it logs in as the program does, sends the
// commands of a plan one after the other, each on a channel of its own, and keeps no document and no log.
//
// floor [OPTION...] PLAN
//
//   --host=NAME --port=N --login=NAME   the source host; the password comes from OVN_PASSWORD
//   --read-size=N    how much a download asks libssh2 for at once (65536)
//   --save=FILE      replace FILE atomically for every piece of a download
//   --owner=UID:GID  whose FILE is then to be
//   --md5            sum up what is downloaded
//   --repeat=N       go through the plan N times
//   --times          print the milliseconds of the set-up and of every command, a line each
//
// PLAN has a line for each command: a kind and its operands, with tabs between them.
//
//   exec COMMAND        its output is read and dropped
//   get COMMAND LOCAL   its output goes into the file LOCAL
//   put COMMAND LOCAL   its input comes from the file LOCAL
#include "stopwatch.h"

#include <libssh2.h>
#include <openssl/evp.h>

#include <fcntl.h>
#include <getopt.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

// What the program opens channels with, and the pieces in which it moves data.
constexpr unsigned kWindowSize = 65536;
constexpr unsigned kPacketSize = 16384;
constexpr std::size_t kPieceSize = 65536;
constexpr std::size_t kInputPieceSize = 65400;
constexpr long kServerSilenceLimitMs = 120000;
// As long as the status document of a transfer.
constexpr std::size_t kSavedSize = 600;

struct Options {
    std::string host = "127.0.0.1";
    std::string port = "22";
    std::string login;
    std::size_t readSize = kPieceSize;
    std::string save;
    uid_t uid = 0;
    gid_t gid = 0;
    bool md5 = false;
    int repeat = 1;
    bool times = false;
    std::string plan;
};

struct Step {
    std::string kind;
    std::string command;
    std::string local;
};

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

[[noreturn]] void failWithErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(fd_); }
    int fd() const { return fd_; }

  private:
    int fd_;
};

void writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = write(fd, data.data(), data.size());
        if (written < 0) {
            failWithErrno("write");
        }
        data.remove_prefix(static_cast<std::size_t>(written));
    }
}

int connectTo(const Options& options) {
    addrinfo* found = nullptr;
    if (const int code = getaddrinfo(options.host.c_str(), options.port.c_str(), nullptr, &found);
        code != 0) {
        fail(options.host + ": " + gai_strerror(code));
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> address(found, freeaddrinfo);
    const int fd = socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (connect(fd, address->ai_addr, address->ai_addrlen) != 0) {
        failWithErrno("connect");
    }
    return fd;
}

/// A logged-in connection.
class Connection {
  public:
    explicit Connection(const Options& options)
        : socket_(connectTo(options)), session_(libssh2_session_init_ex(nullptr, nullptr, nullptr, nullptr)) {
        libssh2_session_set_timeout(session_, kServerSilenceLimitMs);
        require(libssh2_session_startup(session_, socket_.fd()), "session_startup");
        const auto loginSize = static_cast<unsigned>(options.login.size());
        const char* const methods = libssh2_userauth_list(session_, options.login.data(), loginSize);
        if (methods == nullptr || std::strstr(methods, "password") == nullptr) {
            fail("the server takes no passwords");
        }
        const char* const password = std::getenv("OVN_PASSWORD");
        if (password == nullptr) {
            fail("OVN_PASSWORD is not set");
        }
        require(libssh2_userauth_password_ex(session_, options.login.data(), loginSize, password,
                                             static_cast<unsigned>(std::strlen(password)), nullptr),
                "userauth_password");
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() {
        libssh2_session_set_blocking(session_, 1);
        libssh2_session_free(session_);
    }

    /// Runs `command`: `input` writes what it reads, `output` gets what it prints. Returns its exit status.
    template <typename Input, typename Output>
    int run(const std::string& command, std::vector<char>& buffer, Input input, Output output) {
        libssh2_session_set_blocking(session_, 1);
        LIBSSH2_CHANNEL* const channel =
            libssh2_channel_open_ex(session_, "session", 7, kWindowSize, kPacketSize, nullptr, 0);
        if (channel == nullptr) {
            fail("channel_open");
        }
        require(libssh2_channel_process_startup(channel, "exec", 4, command.data(),
                                                static_cast<unsigned>(command.size())),
                "process_startup");
        input(channel);
        require(libssh2_channel_send_eof(channel), "send_eof");
        drain(channel, buffer, output);
        require(libssh2_channel_wait_closed(channel), "wait_closed");
        const int status = libssh2_channel_get_exit_status(channel);
        require(libssh2_channel_free(channel), "channel_free");
        return status;
    }

    static void require(int result, const char* what) {
        if (result < 0) {
            fail(std::string(what) + ": error " + std::to_string(result));
        }
    }

  private:
    // In blocking mode a read of the one stream would wait while only the other has something.
    template <typename Output>
    void drain(LIBSSH2_CHANNEL* channel, std::vector<char>& buffer, Output output) {
        libssh2_session_set_blocking(session_, 0);
        bool lookedAgain = false;
        while (libssh2_channel_eof(channel) == 0) {
            if (const std::size_t size = readSome(channel, 0, buffer.data(), buffer.size()); size > 0) {
                output(std::string_view(buffer.data(), size));
                lookedAgain = false;
                continue;
            }
            if (const std::size_t size = readSome(channel, 1, buffer.data(), kPieceSize); size > 0) {
                std::cerr.write(buffer.data(), static_cast<std::streamsize>(size));
                continue;
            }
            // The second read may have taken from the socket what the first was to give, and the end too.
            if (libssh2_channel_eof(channel) != 0) {
                break;
            }
            lookedAgain = !lookedAgain && libssh2_poll_channel_read(channel, 1) != 0;
            if (!lookedAgain) {
                pollfd waiting{socket_.fd(), POLLIN, 0};
                poll(&waiting, 1, -1);
            }
        }
        libssh2_session_set_blocking(session_, 1);
    }

    static std::size_t readSome(LIBSSH2_CHANNEL* channel, int stream, char* buffer, std::size_t size) {
        const ssize_t result = libssh2_channel_read_ex(channel, stream, buffer, size);
        if (result < 0 && result != LIBSSH2_ERROR_EAGAIN) {
            fail("read: error " + std::to_string(result));
        }
        return result > 0 ? static_cast<std::size_t>(result) : 0;
    }

    Descriptor socket_;
    LIBSSH2_SESSION* session_;
};

/// What is done for each piece beside writing it.
class Extras {
  public:
    explicit Extras(const Options& options) : options_(options), text_(kSavedSize, 'x') {
        if (options.md5) {
            sum_.reset(EVP_MD_CTX_new());
        }
    }

    void begin() {
        if (sum_) {
            EVP_DigestInit_ex(sum_.get(), EVP_md5(), nullptr);
        }
    }

    void piece(std::string_view data) {
        if (sum_) {
            EVP_DigestUpdate(sum_.get(), data.data(), data.size());
        }
        if (!options_.save.empty()) {
            save();
        }
    }

    void end() {
        if (sum_) {
            unsigned char digest[EVP_MAX_MD_SIZE];
            EVP_DigestFinal_ex(sum_.get(), digest, nullptr);
        }
    }

  private:
    void save() const {
        std::string temporary = options_.save + "XXXXXX";
        const Descriptor file(mkstemp(temporary.data()));
        if (file.fd() < 0) {
            failWithErrno(temporary);
        }
        writeAll(file.fd(), text_);
        if (fchown(file.fd(), options_.uid, options_.gid) != 0 ||
            std::rename(temporary.c_str(), options_.save.c_str()) != 0) {
            failWithErrno(temporary);
        }
    }

    const Options& options_;
    std::string text_;
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> sum_{nullptr, EVP_MD_CTX_free};
};

/// Goes through the steps of a plan.
class Runner {
  public:
    Runner(const Options& options, Connection& connection)
        : connection_(connection), extras_(options), small_(kPieceSize), large_(options.readSize) {}

    void run(const Step& step) {
        const int status = step.kind == "get" ? get(step) : step.kind == "put" ? put(step) : exec(step);
        if (status != 0) {
            fail("status " + std::to_string(status) + " of " + step.command);
        }
    }

  private:
    int exec(const Step& step) {
        return connection_.run(
            step.command, small_, [](LIBSSH2_CHANNEL*) {}, [](std::string_view) {});
    }

    int get(const Step& step) {
        makeParent(step.local);
        const Descriptor file(open(step.local.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (file.fd() < 0) {
            failWithErrno(step.local);
        }
        extras_.begin();
        const int status = connection_.run(
            step.command, large_, [](LIBSSH2_CHANNEL*) {},
            [&](std::string_view data) {
                for (; !data.empty(); data.remove_prefix(std::min(kPieceSize, data.size()))) {
                    const std::string_view piece = data.substr(0, kPieceSize);
                    writeAll(file.fd(), piece);
                    extras_.piece(piece);
                }
            });
        extras_.end();
        return status;
    }

    int put(const Step& step) {
        const Descriptor file(open(step.local.c_str(), O_RDONLY | O_CLOEXEC));
        if (file.fd() < 0) {
            failWithErrno(step.local);
        }
        return connection_.run(
            step.command, small_,
            [&](LIBSSH2_CHANNEL* channel) {
                std::vector<char>& buffer = small_;
                for (;;) {
                    const ssize_t size = read(file.fd(), buffer.data(), kInputPieceSize);
                    if (size <= 0) {
                        return;
                    }
                    for (ssize_t done = 0; done < size;) {
                        const ssize_t written = libssh2_channel_write_ex(
                            channel, 0, buffer.data() + done, static_cast<std::size_t>(size - done));
                        Connection::require(static_cast<int>(written), "write");
                        done += written;
                    }
                }
            },
            [](std::string_view) {});
    }

    void makeParent(const std::string& path) {
        const std::string parent = std::filesystem::path(path).parent_path();
        if (made_.insert(parent).second) {
            std::filesystem::create_directories(parent);
        }
    }

    Connection& connection_;
    Extras extras_;
    std::vector<char> small_;
    std::vector<char> large_;
    std::set<std::string> made_;
};

std::vector<Step> readPlan(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        failWithErrno(path);
    }
    std::vector<Step> steps;
    for (std::string line; std::getline(file, line);) {
        const std::size_t first = line.find('\t');
        const std::size_t second = line.find('\t', first + 1);
        if (first == std::string::npos) {
            fail("no plan: " + line);
        }
        steps.push_back({line.substr(0, first), line.substr(first + 1, second - first - 1),
                         second == std::string::npos ? "" : line.substr(second + 1)});
    }
    return steps;
}

Options parse(int argc, char** argv) {
    const option known[] = {{"host", 1, nullptr, 'h'},  {"port", 1, nullptr, 'p'},
                            {"login", 1, nullptr, 'l'}, {"save", 1, nullptr, 's'},
                            {"owner", 1, nullptr, 'o'}, {"read-size", 1, nullptr, 'r'},
                            {"md5", 0, nullptr, 'm'},   {"repeat", 1, nullptr, 'n'},
                            {"times", 0, nullptr, 't'}, {nullptr, 0, nullptr, 0}};
    Options options;
    for (int found = 0; (found = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        const std::string value = optarg != nullptr ? optarg : "";
        switch (found) {
            case 'h':
                options.host = value;
                break;
            case 'p':
                options.port = value;
                break;
            case 'l':
                options.login = value;
                break;
            case 's':
                options.save = value;
                break;
            case 'o':
                options.uid = static_cast<uid_t>(std::stoul(value));
                options.gid = static_cast<gid_t>(std::stoul(value.substr(value.find(':') + 1)));
                break;
            case 'r':
                options.readSize = std::max(kPieceSize, static_cast<std::size_t>(std::stoul(value)));
                break;
            case 'm':
                options.md5 = true;
                break;
            case 'n':
                options.repeat = std::stoi(value);
                break;
            case 't':
                options.times = true;
                break;
            default:
                fail("unknown option");
        }
    }
    if (optind + 1 != argc) {
        fail("usage: floor [OPTION...] PLAN");
    }
    options.plan = argv[optind];
    return options;
}

void goThrough(const Options& options) {
    const std::vector<Step> steps = options.plan.empty() ? std::vector<Step>() : readPlan(options.plan);
    std::vector<double> times;
    const Stopwatch setUp;
    Connection connection(options);
    times.push_back(setUp.milliseconds());
    Runner runner(options, connection);
    for (int i = 0; i < options.repeat; ++i) {
        for (const Step& step : steps) {
            const Stopwatch command;
            runner.run(step);
            times.push_back(command.milliseconds());
        }
    }
    if (options.times) {
        for (const double time : times) {
            std::cout << time << '\n';
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    try {
        goThrough(parse(argc, argv));
        return 0;
    } catch (const std::exception& e) {
        std::cerr << "floor: " << e.what() << "\n";
        return 1;
    }
}
