// SPDX-License-Identifier: Apache-2.0
#include "tallowick/args_builder.h"

#include "commons/sh_quote.h"

namespace korva {

ArgsBuilder::ArgsBuilder(const std::string& command) : line_(sh_quote(command)) {}

ArgsBuilder& ArgsBuilder::operator<<(const char* word) {
    return *this << std::string(word);
}

ArgsBuilder& ArgsBuilder::operator<<(const std::string& word) {
    line_ += ' ' + sh_quote(word);
    return *this;
}

}  // namespace korva
