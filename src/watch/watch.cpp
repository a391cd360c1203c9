// SPDX-License-Identifier: Apache-2.0
#include "watch/watch.h"

#include "commons/ending_signals.h"
#include "watch/line_report.h"
#include "watch/rate_meter.h"
#include "watch/session_watch.h"
#include "watch/terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <csignal>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>
#include <tuple>

namespace korva {
namespace {

constexpr timespec kInterval = {0, 250'000'000};  // between two looks

std::string clockText(const char* format) {
    const std::time_t now = std::time(nullptr);
    struct tm local {};
    std::array<char, 64> text{};
    std::ignore = std::strftime(text.data(), text.size(), format, localtime_r(&now, &local));
    return text.data();
}

/// Looks into the session again and again.
class Observer {
  public:
    explicit Observer(const std::string& directory) : watch_(directory) {}

    const Snapshot& look(const char* clockFormat) {
        const Snapshot& snapshot = watch_.look();
        const auto& status = snapshot.status.content;
        meter_.note(std::chrono::steady_clock::now(),
                    status ? status->transfer.sizeLeft : std::optional<std::int64_t>());
        moment_ = {std::chrono::time_point_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now()),
                   clockText(clockFormat), meter_.bytesPerSecond()};
        return snapshot;
    }

    const Moment& moment() const { return moment_; }

  private:
    SessionWatch watch_;
    RateMeter meter_;
    Moment moment_;
};

int statusOf(const Document<Outcome>* outcome) {
    if (outcome == nullptr) {
        return kWatchNoOutcome;
    }
    return outcome->content && outcome->content->success ? kWatchSuccess : kWatchFailed;
}

/// False when nobody gets it.
bool printed(const std::string& text) {
    std::cout << text << std::flush;
    if (!std::cout) {
        std::cerr << "tallowick-watch: cannot write to standard output\n";
    }
    return static_cast<bool>(std::cout);
}

int columnsOfOutput() {
    winsize size{};
    // What is stored for later is not to be cut.
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : INT_MAX / 2;
}

/// What the user does on the terminal.
class Keyboard {
  public:
    /// Waits for a key or the next look; false when there will be no keys any more.
    bool wait() const {
        pollfd input = {isTerminal_ ? STDIN_FILENO : -1, POLLIN, 0};
        const int ready = ppoll(&input, 1, &kInterval, &EndingSignals::maskForWaits());
        return ready <= 0 || (input.revents & (POLLHUP | POLLERR | POLLNVAL)) == 0;
    }

    static bool quits(Terminal& terminal) {
        for (int key = terminal.pressedKey(); key >= 0; key = terminal.pressedKey()) {
            if (key == 'q' || key == 'Q') {
                return true;
            }
        }
        return false;
    }

  private:
    bool isTerminal_ = isatty(STDIN_FILENO) == 1;
};

void showUntilTheEnd(Terminal& terminal, Observer& observer, Charset charset) {
    const Keyboard keyboard;
    do {
        const Snapshot& snapshot = observer.look("%H:%M:%S");
        terminal.show(renderScreen(snapshot, observer.moment(), terminal.size(), charset));
    } while (keyboard.wait() && EndingSignals::received() == 0 && !Keyboard::quits(terminal));
}

}  // namespace

int printOnce(const std::string& directory, Charset charset) {
    Observer observer(directory);
    const Snapshot& snapshot = observer.look("%F %T");
    std::string text;
    for (const Row& row : renderReport(snapshot, observer.moment(), columnsOfOutput(), charset)) {
        std::string line = plainText(row);
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return printed(text) ? statusOf(judge(snapshot).outcome) : kWatchMisuse;
}

int printLines(const std::string& directory, Charset charset) {
    Observer observer(directory);
    LineReport report(charset);
    for (;;) {
        const Snapshot& snapshot = observer.look("%F %T");
        std::string text;
        for (const std::string& line :
             report.update(snapshot, observer.moment(), std::chrono::steady_clock::now())) {
            text += line + "\n";
        }
        if (!text.empty() && !printed(text)) {
            return kWatchMisuse;
        }
        if (const Document<Outcome>* const outcome = report.newOutcome(snapshot)) {
            return statusOf(outcome);
        }
        std::ignore = nanosleep(&kInterval, nullptr);
    }
}

int showScreen(const std::string& directory, Charset charset) {
    bool isShown = false;
    int endingSignal = 0;
    {
        const EndingSignals signals;
        if (const std::unique_ptr<Terminal> terminal = Terminal::take()) {
            Observer observer(directory);
            showUntilTheEnd(*terminal, observer, charset);
            isShown = true;
        }
        endingSignal = EndingSignals::received();
    }
    if (endingSignal != 0) {
        std::ignore = raise(endingSignal);  // so that whoever started the program knows why it has ended
    }
    return isShown ? static_cast<int>(kWatchSuccess) : printLines(directory, charset);
}

}  // namespace korva
