// SPDX-License-Identifier: Apache-2.0
#include "commons/secret_mask.h"

#include <algorithm>

namespace korva {
namespace {

constexpr std::string_view kBlanks = " \t\r\n\v\f";
constexpr std::size_t kShortestPart = 4;

// Each run of covered bytes becomes one mark, so that nothing tells how long a secret is. `inMark`: whether
// the byte before `text` was covered.
std::string hideCovered(std::string_view text, const std::vector<bool>& covered, bool inMark) {
    std::string shown;
    shown.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (!covered[i]) {
            shown += text[i];
        } else if (!inMark) {
            shown += "********";
        }
        inMark = covered[i];
    }
    return shown;
}

}  // namespace

void Secrets::add(const std::string& secret) {
    addPattern(secret);
    std::size_t begin = secret.find_first_not_of(kBlanks);
    while (begin != std::string::npos) {
        const std::size_t end = std::min(secret.find_first_of(kBlanks, begin), secret.size());
        if (end - begin >= kShortestPart) {
            addPattern(std::string_view(secret).substr(begin, end - begin));
        }
        begin = secret.find_first_not_of(kBlanks, end);
    }
}

void Secrets::addPattern(std::string_view pattern) {
    if (!pattern.empty() && std::find(patterns_.begin(), patterns_.end(), pattern) == patterns_.end()) {
        patterns_.emplace_back(pattern);
    }
}

std::string Secrets::mask(std::string_view text) const {
    return hideCovered(text, coverage(text), false);
}

std::vector<bool> Secrets::coverage(std::string_view text) const {
    std::vector<bool> covered(text.size(), false);
    for (const std::string& pattern : patterns_) {
        for (std::size_t at = text.find(pattern); at != std::string_view::npos;
             at = text.find(pattern, at + 1)) {
            std::fill_n(covered.begin() + static_cast<std::ptrdiff_t>(at), pattern.size(), true);
        }
    }
    return covered;
}

std::size_t Secrets::undecidedTail(std::string_view text) const {
    std::size_t longest = 0;
    for (const std::string& pattern : patterns_) {
        for (std::size_t size = std::min(pattern.size() - 1, text.size()); size > longest; --size) {
            if (text.ends_with(std::string_view(pattern).substr(0, size))) {
                longest = size;
            }
        }
    }
    return longest;
}

std::string SecretMaskStream::push(std::string_view chunk) {
    pending_ += chunk;
    return show(pending_.size() - secrets_.undecidedTail(pending_));
}

std::string SecretMaskStream::finish() {
    std::string shown = show(pending_.size());
    inMark_ = false;
    return shown;
}

// Shows the first `size` of the bytes kept back.
std::string SecretMaskStream::show(std::size_t size) {
    std::vector<bool> covered = secrets_.coverage(pending_);
    std::fill_n(covered.begin(), coveredBefore_, true);
    std::string shown = hideCovered(std::string_view(pending_).substr(0, size), covered, inMark_);
    inMark_ = size > 0 ? covered[size - 1] : inMark_;
    const auto rest = covered.begin() + static_cast<std::ptrdiff_t>(size);
    coveredBefore_ = static_cast<std::size_t>(std::find(rest, covered.end(), false) - rest);
    pending_.erase(0, size);
    return shown;
}

}  // namespace korva
