// SPDX-License-Identifier: Apache-2.0
#include "commons/exception.h"
#include "commons/log_line.h"
#include "tallowick/driver.h"
#include "tallowick/exit_status.h"
#include "xml/text_msg_formatter.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <iostream>
#include <tuple>

namespace {

// Whoever started the program may have closed them. A document or the connection must not get their numbers,
// or messages would be written into it. What takes their place can be neither read nor written: output that
// nobody gets is an error, as it would be without.
bool reserveStandardDescriptors() {
    int fd = 0;
    do {
        fd = open("/", O_PATH);
    } while (fd >= STDIN_FILENO && fd <= STDERR_FILENO);
    return fd > STDERR_FILENO && close(fd) == 0;
}

// Whoever started the program may have blocked signals; its disconnected pipes and file size limits are to
// come back as errors of write(2).
void prepareSignals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::ignore = std::signal(SIGPIPE, SIG_IGN);
    std::ignore = std::signal(SIGXFSZ, SIG_IGN);
}

// A core dump would hold the passwords, wherever the kernel sends it.
void forbidCoreDumps() {
    const rlimit none{0, 0};
    std::ignore = setrlimit(RLIMIT_CORE, &none);  // lowering a limit is always allowed
    std::ignore = prctl(PR_SET_DUMPABLE, 0);
}

// There may be no memory for the whole of it.
void tellUncaught(const korva::ExTraceable& error) {
    std::cerr << "Uncaught ExTraceableException: ";
    try {
        std::cerr << korva::formatPlainTextMessage(error) << "\n";
    } catch (const std::exception&) {
        std::cerr << error.what() << "\n";
    }
}

int statusOfRun(int argc, char** argv) {
    try {
        return korva::real_main(argc, argv);
    } catch (const korva::ExTraceable& error) {
        tellUncaught(error);
    } catch (const std::exception& error) {
        std::cerr << "Uncaught std::exception: " << error.what() << "\n";
    } catch (...) {
        std::cerr << "Uncaught unknown exception\n";
    }
    return korva::kExitUsage;
}

int statusToEndWith = korva::kExitUsage;

// The run is over and told: a library's destructor that finds no memory must not end it by a signal.
void keepStatus(int status) {
    statusToEndWith = status;
    std::set_terminate([] { _exit(statusToEndWith); });
}

}  // namespace

int main(int argc, char** argv) {
    if (!reserveStandardDescriptors()) {
        const int error = errno;
        std::cerr << "Cannot open the standard descriptors: " << std::strerror(error) << "\n";
        return korva::kExitUsage;
    }
    prepareSignals();
    forbidCoreDumps();
    const int status = statusOfRun(argc, argv);
    korva::closeLog();
    keepStatus(status);
    return status;
}
