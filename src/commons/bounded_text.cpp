// SPDX-License-Identifier: Apache-2.0
#include "commons/bounded_text.h"

#include <algorithm>
#include <string_view>

namespace korva {

std::string BoundedText::Buffer::str() const {
    const std::size_t beyond = tail_.size() > kEndSize ? tail_.size() - kEndSize : 0;
    const std::size_t missing = leftOut_ + beyond;
    if (missing == 0) {
        return head_ + tail_;
    }
    return head_ + "\n[" + std::to_string(missing) + " bytes left out]\n" + tail_.substr(beyond);
}

std::streamsize BoundedText::Buffer::xsputn(const char* data, std::streamsize size) {
    std::string_view text(data, static_cast<std::size_t>(size));
    const std::size_t first = std::min(text.size(), kEndSize - head_.size());
    head_ += text.substr(0, first);
    tail_ += text.substr(first);
    if (tail_.size() > 2 * kEndSize) {
        leftOut_ += tail_.size() - kEndSize;
        tail_.erase(0, tail_.size() - kEndSize);
    }
    return size;
}

std::streamsize LimitedText::Buffer::xsputn(const char* data, std::streamsize size) {
    if (exceeded || static_cast<std::size_t>(size) > limit_ - text.size()) {
        exceeded = true;
        return 0;
    }
    text.append(data, static_cast<std::size_t>(size));
    return size;
}

}  // namespace korva
