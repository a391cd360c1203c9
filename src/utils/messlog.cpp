// SPDX-License-Identifier: Apache-2.0
#include "utils/messlog.h"

#include "utils/write_all.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

namespace korva {
namespace {

bool inForkedChild = false;

[[gnu::format(printf, 1, 0)]] std::string formatted(const char* format, std::va_list arguments) {
    constexpr std::size_t kUsualSize = 4096;
    std::va_list again;
    va_copy(again, arguments);
    std::string text(kUsualSize, '\0');
    const int length = std::vsnprintf(text.data(), text.size(), format, arguments);
    if (length >= static_cast<int>(text.size())) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
    }
    va_end(again);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

void print(const std::string& text) {
    if (inForkedChild) {
        // Nobody is left to be told of a failure.
        std::ignore = writeAll(STDERR_FILENO, text);
        std::ignore = writeAll(STDOUT_FILENO, text);
        return;
    }
    for (std::FILE* stream : {stderr, stdout}) {
        std::fwrite(text.data(), 1, text.size(), stream);
        std::fflush(stream);
    }
}

}  // namespace

void messlog2(int status, int /*flag*/, const char* format,
              ...) {  // NOLINT(cert-dcl50-cpp): a fixed interface
    const int error = errno;
    std::va_list arguments;
    va_start(arguments, format);
    std::string text = program_invocation_short_name + std::string(": ") + formatted(format, arguments);
    va_end(arguments);
    if (error != 0) {
        text += "\nSystem error " + std::to_string(error) + ": " + std::strerror(error);
    }
    if (text.back() != '\n') {
        text += '\n';
    }
    print(text);
    if (status != 0) {
        inForkedChild ? ::_exit(status) : std::exit(status);
    }
}

void messlogInForkedChild() {
    inForkedChild = true;
}

}  // namespace korva
