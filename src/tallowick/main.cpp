// SPDX-License-Identifier: Apache-2.0
#include "commons/exception.h"
#include "tallowick/driver.h"
#include "tallowick/exit_status.h"
#include "xml/text_msg_formatter.h"

#include <csignal>
#include <exception>
#include <iostream>
#include <tuple>

namespace {

// Whoever started the program may have blocked signals; its disconnected pipes and file size limits are to
// come back as errors of write(2).
void prepareSignals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::ignore = std::signal(SIGPIPE, SIG_IGN);
    std::ignore = std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace

int main(int argc, char** argv) {
    prepareSignals();
    try {
        return korva::real_main(argc, argv);
    } catch (const korva::ExTraceable& error) {
        std::cerr << "Uncaught ExTraceableException: " << korva::formatPlainTextMessage(error) << "\n";
    } catch (const std::exception& error) {
        std::cerr << "Uncaught std::exception: " << error.what() << "\n";
    } catch (...) {
        std::cerr << "Uncaught unknown exception\n";
    }
    return korva::kExitUsage;
}
