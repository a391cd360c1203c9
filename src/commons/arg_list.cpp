// SPDX-License-Identifier: Apache-2.0
#include "commons/arg_list.h"

#include "commons/sh_quote.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace korva {

ArgList::~ArgList() {
    for (char* argument : arguments_) {
        std::free(argument);
    }
}

ArgList& ArgList::operator<<(const std::string& argument) {
    arguments_.push_back(nullptr);
    char* copy = ::strdup(argument.c_str());
    if (copy == nullptr) {
        arguments_.pop_back();
        throw std::bad_alloc();
    }
    arguments_[arguments_.size() - 2] = copy;
    return *this;
}

std::string ArgList::getStringRepresentation() const {
    std::string text;
    for (const char* argument : arguments_) {
        if (argument == nullptr) {
            break;
        }
        if (argument != arguments_.front()) {
            text += ' ';
        }
        text += *argument == '\0' ? "''" : sh_quote(argument);
    }
    return text;
}

}  // namespace korva
