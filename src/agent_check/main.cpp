// SPDX-License-Identifier: Apache-2.0
#include "agent_check/agent_checker.h"
#include "agent_check/check_options.h"
#include "agent_check/interruption.h"
#include "commons/ending_signals.h"
#include "commons/session.h"
#include "utils/log_hook.h"
#include "xml/log.h"

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <tuple>

namespace korva::agent_check {
namespace {

namespace fs = std::filesystem;

enum ExitStatus { kNoProblem = 0, kProblems = 1, kNotChecked = 2 };

/// What the program would write to its log is nothing to those who check an agent.
class NoDebugLog : public DebugLog {
  public:
    void log(const std::string& /*text*/) override {}
    void log(const boost::format& /*text*/) override {}
    void log(const ExTraceable& /*error*/) override {}
    bool isVerboseMode() const override { return false; }
    bool isDebugMode() const override { return false; }
};

fs::path directoryOf(const std::string& path) {
    fs::path directory = fs::canonical(path);
    if (!fs::is_directory(directory)) {
        throw std::runtime_error(path + " is no directory");
    }
    return directory;
}

CheckRequest requestOf(const CheckOptions& options) {
    CheckRequest request;
    request.agent = directoryOf(options.agent);
    request.shared =
        options.shared.empty() ? request.agent.parent_path() / "shared" : directoryOf(options.shared);
    request.dump = buildDumperInput(options.selection);
    request.hasNames = !request.dump.stdinText.empty();
    request.timeLimit = options.timeLimit;
    return request;
}

int check(const CheckOptions& options) {
    const CheckRequest request = requestOf(options);
    const ThrowAwayDirectory place(options.keep);
    const SessionLifetimeController session(place.path() + "/session");
    Report report(std::cout);
    AgentChecker(request, place.path(), report).run();
    report.finish();
    if (options.keep) {
        std::cout << "kept     " << place.path() << '\n' << std::flush;
    }
    if (!std::cout) {
        throw std::runtime_error("standard output cannot be written");
    }
    return report.problems() == 0 ? kNoProblem : kProblems;
}

int statusOfCheck(int argc, char** argv) {
    CheckOptions options;
    if (!parseCheckOptions(argc, argv, options)) {
        return kNotChecked;
    }
    if (options.help) {
        std::cout << kUsage << std::flush;
        return kNoProblem;
    }
    if (geteuid() == 0 && !options.allowRoot) {
        std::cerr << "tallowick-agent-check: an agent is somebody's code, and root can do everything; be an "
                     "ordinary user, or give --allow-root\n";
        return kNotChecked;
    }
    return check(options);
}

}  // namespace
}  // namespace korva::agent_check

int main(int argc, char** argv) {
    using namespace korva;
    using namespace korva::agent_check;
    NoDebugLog noLog;
    theDebugLog = &noLog;
    setUtilityLogSink([](const std::string& /*message*/) {});
    std::srand(static_cast<unsigned>(std::time(nullptr)) ^ static_cast<unsigned>(getpid()));
    std::ignore = std::signal(SIGPIPE, SIG_IGN);
    std::optional<int> interruption;
    try {
        const EndingSignals signals;
        return statusOfCheck(argc, argv);
    } catch (const Interruption& signal) {
        interruption = signal.signal;
    } catch (const std::exception& failure) {
        std::cerr << "tallowick-agent-check: " << failure.what() << '\n';
        return kNotChecked;
    }
    std::ignore = std::raise(*interruption);  // so that whoever started the program knows why it has ended
    return kNotChecked;
}
