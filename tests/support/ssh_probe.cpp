// SPDX-License-Identifier: Apache-2.0
// Runs operations of the class Ssh over one connection, as its command line says, and prints what came of
// them. For tests that look at the connection itself rather than at an action.
#include "commons/termination.h"
#include "ssh/ssh-transfer.h"

#include <log4cpp/Category.hh>
#include <log4cpp/FileAppender.hh>
#include <log4cpp/PatternLayout.hh>

#include <poll.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

int waitsInVain = 0;

}  // namespace

// The linker puts it before ppoll(2): a wait that its time-out ended, and nothing else, is one in vain.
extern "C" {
int __real_ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask);
int __wrap_ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    const int ready = __real_ppoll(descriptors, count, timeout, mask);
    waitsInVain += ready == 0 ? 1 : 0;
    return ready;
}
}

namespace {

using korva::Ssh;

struct Settings {
    std::string host = "127.0.0.1";
    unsigned short port = 22;
    std::string login;
    std::string passwordVariable = "OVN_PASSWORD";
    std::string extraSecretVariable;
    bool noEncryption = false;
    int timerMs = 0;
    int terminateAfterChunks = 0;
    std::string alarmFile;
    std::string alarmGetLocal;
    std::string alarmGetRemote;
    bool alarmThrows = false;
};

/// Where one operation's data goes.
struct Streams {
    std::string outFile;
    std::string errFile;
    std::string countsFile;
    bool loud = false;
};

/// Writes each size that it is told; asks the run to end after so many.
class ProbeCounter : public Ssh::Counter {
  public:
    ProbeCounter(const std::string& file, int terminateAfter) : terminateAfter_(terminateAfter) {
        if (!file.empty()) {
            sizes_.open(file);
        }
    }
    void operator()(int bytes) override {
        sizes_ << bytes << std::endl;  // a test may wait for it
        if (++calls_ == terminateAfter_) {
            korva::terminateProgram();
        }
    }

  private:
    std::ofstream sizes_;
    int calls_ = 0;
    int terminateAfter_;
};

/// Notes each call; on request downloads a file meanwhile, or fails.
class ProbeAlarm : public korva::Alarm {
  public:
    ProbeAlarm(Ssh& ssh, const Settings& settings) : ssh_(ssh), settings_(settings) {}
    void doAlarm() override {
        std::ofstream(settings_.alarmFile, std::ios::app) << "alarm\n";
        if (settings_.alarmThrows) {
            throw std::runtime_error("alarm has failed");
        }
        if (!settings_.alarmGetLocal.empty()) {
            ssh_.setAlarm(nullptr);
            const int status = ssh_.get(settings_.alarmGetLocal, settings_.alarmGetRemote);
            std::ofstream(settings_.alarmFile, std::ios::app) << "get status=" << status << "\n";
            ssh_.setAlarm(this);
        }
    }

  private:
    Ssh& ssh_;
    const Settings& settings_;
};

class Arguments {
  public:
    Arguments(int argc, char** argv) : words_(argv + 1, argv + argc) {}
    bool empty() const { return next_ == words_.size(); }
    std::string take() {
        if (empty()) {
            throw std::invalid_argument("an argument is missing");
        }
        return words_[next_++];
    }
    /// The options of the whole run end where those of the first operation begin.
    bool nextIsSetting() const {
        static const std::set<std::string> kOperationOptions = {"--out", "--err", "--counts", "--loud"};
        return !empty() && words_[next_].starts_with("--") && kOperationOptions.count(words_[next_]) == 0;
    }

  private:
    std::vector<std::string> words_;
    std::size_t next_ = 0;
};

void logTo(const std::string& file) {
    auto layout = std::make_unique<log4cpp::PatternLayout>();
    layout->setConversionPattern("%p %c: %m%n");
    auto appender = std::make_unique<log4cpp::FileAppender>("file", file);
    appender->setLayout(layout.release());  // the appender owns it
    log4cpp::Category::getRoot().setPriority(log4cpp::Priority::DEBUG);
    log4cpp::Category::getRoot().addAppender(appender.release());  // so does the category
}

void startTimer(int milliseconds) {
    struct sigaction handler {};
    handler.sa_handler = [](int) {};  // flags 0: interrupted calls are not restarted
    sigaction(SIGALRM, &handler, nullptr);
    const timeval interval{milliseconds / 1000, (milliseconds % 1000) * 1000};
    const itimerval timer{interval, interval};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

void readSettings(Arguments& arguments, Settings& settings) {
    while (arguments.nextIsSetting()) {
        const std::string option = arguments.take();
        if (option == "--") {
            return;  // options of the first operation follow
        }
        if (option == "--host") {
            settings.host = arguments.take();
        } else if (option == "--port") {
            settings.port = static_cast<unsigned short>(std::stoi(arguments.take()));
        } else if (option == "--login") {
            settings.login = arguments.take();
        } else if (option == "--password-env") {
            settings.passwordVariable = arguments.take();
        } else if (option == "--secret-env") {
            settings.extraSecretVariable = arguments.take();
        } else if (option == "--log") {
            logTo(arguments.take());
        } else if (option == "--no-encryption") {
            settings.noEncryption = true;
        } else if (option == "--timer-ms") {
            settings.timerMs = std::stoi(arguments.take());
        } else if (option == "--terminate-after-chunks") {
            settings.terminateAfterChunks = std::stoi(arguments.take());
        } else if (option == "--umask") {
            umask(static_cast<mode_t>(std::stoi(arguments.take(), nullptr, 8)));
        } else if (option == "--alarm") {
            settings.alarmFile = arguments.take();
        } else if (option == "--alarm-get") {
            settings.alarmGetLocal = arguments.take();
            settings.alarmGetRemote = arguments.take();
        } else if (option == "--alarm-throws") {
            settings.alarmThrows = true;
        } else {
            throw std::invalid_argument("unknown option " + option);
        }
    }
}

std::unique_ptr<std::ostream> openSink(const std::string& file) {
    if (file.empty()) {
        return std::make_unique<std::ostringstream>();
    }
    return std::make_unique<std::ofstream>(file);
}

int exec(Ssh& ssh, const std::string& command, std::istream& in, const Streams& streams,
         Ssh::Counter& counter) {
    const auto out = openSink(streams.outFile);
    const auto err = openSink(streams.errFile);
    return ssh.exec(command, in, *out, *err, !streams.loud, !streams.loud, counter);
}

/// Runs one operation; returns its exit status, 0 for those that have none.
int runOperation(Ssh& ssh, const std::string& operation, Arguments& arguments, const Streams& streams,
                 Ssh::Counter& counter) {
    if (operation == "exec") {
        std::istringstream noInput;
        return exec(ssh, arguments.take(), noInput, streams, counter);
    }
    if (operation == "exec-in") {
        std::ifstream in(arguments.take());
        return exec(ssh, arguments.take(), in, streams, counter);
    }
    if (operation == "get") {
        const std::string localPath = arguments.take();
        const auto err = openSink(streams.errFile);
        return ssh.get(localPath, *err, arguments.take(), counter);
    }
    if (operation == "get-stream") {
        const auto out = openSink(streams.outFile);
        const auto err = openSink(streams.errFile);
        return ssh.get(*out, *err, arguments.take(), counter);
    }
    if (operation == "put") {
        const std::string localPath = arguments.take();
        ssh.put(localPath, arguments.take());
        return 0;
    }
    throw std::invalid_argument("unknown operation " + operation);
}

void runOperations(Ssh& ssh, Arguments& arguments, const Settings& settings) {
    Streams streams;
    while (!arguments.empty()) {
        const std::string word = arguments.take();
        if (word == "--out") {
            streams.outFile = arguments.take();
        } else if (word == "--err") {
            streams.errFile = arguments.take();
        } else if (word == "--counts") {
            streams.countsFile = arguments.take();
        } else if (word == "--loud") {
            streams.loud = true;
        } else {
            ProbeCounter counter(streams.countsFile, settings.terminateAfterChunks);
            const int status = runOperation(ssh, word, arguments, streams, counter);
            std::cout << word << " status=" << status << std::endl;
            streams = Streams();
        }
    }
}

const char* passwordOf(const std::string& variable) {
    const char* const value = std::getenv(variable.c_str());
    return value != nullptr ? value : "";
}

std::string codeOf(const korva::ExTraceable& error) {
    class CodeVisitor : public korva::ExInfoVisitor {
      public:
        std::string code;
        void setCode(const std::string& text) override { code = code.empty() ? text : code; }
        void setId(const std::string& /*id*/) override {}
        void setMessage(const std::string& /*message*/) override {}
        void setContext(const std::string& /*context*/) override {}
        void setFile(const std::string& /*file*/) override {}
        void setLine(int /*line*/) override {}
        void advanceToInnerException() override {}
    };
    CodeVisitor visitor;
    error.accept(visitor);
    return visitor.code;
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int kExitError = 3;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    Settings settings;
    try {
        Arguments arguments(argc, argv);
        readSettings(arguments, settings);
        if (settings.timerMs > 0) {
            startTimer(settings.timerMs);
        }
        Ssh ssh(settings.host, settings.login, passwordOf(settings.passwordVariable), settings.noEncryption,
                settings.port);
        ssh.addSecret(passwordOf(settings.extraSecretVariable));
        std::cout << "connected" << std::endl;
        ProbeAlarm alarm(ssh, settings);
        if (!settings.alarmFile.empty()) {
            ssh.setAlarm(&alarm);
        }
        runOperations(ssh, arguments, settings);
        std::cout << "waits in vain: " << waitsInVain << std::endl;
        return 0;
    } catch (const korva::ExTraceable& error) {
        std::cout << "error=" << codeOf(error) << " " << error.what() << std::endl;
    } catch (const std::exception& error) {
        std::cout << "error=std::exception " << error.what() << std::endl;
    }
    return kExitError;
}
