// SPDX-License-Identifier: Apache-2.0
#include "watch/terminal_text.h"

#include <boost/locale/utf.hpp>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cwchar>
#include <iterator>

namespace korva {
namespace {

using Utf8 = boost::locale::utf::utf_traits<char>;
using boost::locale::utf::code_point;

struct Range {
    code_point first;
    code_point last;
};

// Unicode's category Cf, the two separators and the tags, sorted: unseen, and able to turn or hide what is
// seen.
constexpr std::array<Range, 20> kFormatting = {
    {{0xAD, 0xAD},     {0x600, 0x605},     {0x61C, 0x61C},     {0x6DD, 0x6DD},     {0x70F, 0x70F},
     {0x890, 0x891},   {0x8E2, 0x8E2},     {0x115F, 0x1160},   {0x180B, 0x180F},   {0x200B, 0x200F},
     {0x2028, 0x202E}, {0x2060, 0x206F},   {0x3164, 0x3164},   {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},
     {0xFFF0, 0xFFFB}, {0x110BD, 0x110CD}, {0x13430, 0x1345F}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}}};
constexpr code_point kFirstTag = 0xE0000;  // from here on nothing is meant to be seen

bool isFormatting(code_point c) {
    const auto* const range = std::lower_bound(kFormatting.begin(), kFormatting.end(), c,
                                               [](const Range& r, code_point x) { return r.last < x; });
    return c >= kFirstTag || (range != kFormatting.end() && range->first <= c);
}

bool isAsciiText(code_point c) {
    return c >= 0x20 && c < 0x7F;
}

/// Columns of a character; negative for one that is not to be shown.
int widthOf(code_point c) {
    if (isAsciiText(c)) {
        return 1;
    }
    return c < 0xA0 || isFormatting(c) ? -1 : ::wcwidth(static_cast<wchar_t>(c));
}

bool isLegal(code_point c) {
    return c != boost::locale::utf::illegal && c != boost::locale::utf::incomplete;
}

/// What takes a place of its own: a character with the marks on it.
struct Cell {
    std::string_view bytes;
    int columns;
};

std::vector<Cell> cellsOf(std::string_view text) {
    std::vector<Cell> cells;
    const char* position = text.data();
    const char* const end = position + text.size();
    while (position != end) {
        const char* const start = position;
        const code_point c = Utf8::decode(position, end);
        const int columns = isLegal(c) ? std::max(widthOf(c), 0) : 1;
        if (columns == 0 && !cells.empty()) {
            std::string_view& bytes = cells.back().bytes;
            bytes = {bytes.data(), static_cast<std::size_t>(position - bytes.data())};
        } else {
            cells.push_back({{start, static_cast<std::size_t>(position - start)}, columns});
        }
    }
    return cells;
}

template <typename Iterator>
int sumOfColumns(Iterator first, Iterator last) {
    int columns = 0;
    for (; first != last; ++first) {
        columns += first->columns;
    }
    return columns;
}

/// The first position after `first` at which more than `columns` would be taken.
template <typename Iterator>
Iterator advance(Iterator first, Iterator last, int columns) {
    while (first != last && first->columns <= columns) {
        columns -= first->columns;
        ++first;
    }
    return first;
}

template <typename Iterator>
std::string join(Iterator first, Iterator last) {
    std::string text;
    for (; first != last; ++first) {
        text += first->bytes;
    }
    return text;
}

std::string ellipsis(int columns, Charset charset) {
    const bool isUnicode = charset == Charset::kUnicode;
    const int own = isUnicode ? 1 : 3;
    return own > columns ? "" : isUnicode ? "\u2026" : "...";
}

}  // namespace

std::string toTerminalText(std::string_view bytes, Charset charset) {
    constexpr int kMostMarks = 2;
    const std::string_view substitute = charset == Charset::kUnicode ? "\uFFFD" : "?";
    std::string text;
    text.reserve(bytes.size());
    int marks = kMostMarks;  // none without a character to bear them
    const char* position = bytes.data();
    const char* const end = position + bytes.size();
    while (position != end) {
        const char* const start = position;
        const code_point c = Utf8::decode(position, end);
        if (!isLegal(c)) {
            position = start + 1;  // the bytes behind a bad one may be good
        }
        const bool isBlank = c == '\t' || c == '\n' || c == '\r';
        const int width = isBlank                        ? 1
                          : !isLegal(c)                  ? -1
                          : charset == Charset::kUnicode ? widthOf(c)
                          : isAsciiText(c)               ? 1
                                                         : -1;
        if (width == 0) {
            if (++marks <= kMostMarks) {
                text.append(start, position);
            }
            continue;
        }
        marks = 0;
        if (isBlank) {
            text += ' ';
        } else if (width < 0) {
            text += substitute;
        } else {
            text.append(start, position);
        }
    }
    return text;
}

int columnsOf(std::string_view text) {
    const std::vector<Cell> cells = cellsOf(text);
    return sumOfColumns(cells.begin(), cells.end());
}

std::string clipEnd(const std::string& text, int columns, Charset charset) {
    const std::vector<Cell> cells = cellsOf(text);
    if (sumOfColumns(cells.begin(), cells.end()) <= columns) {
        return text;
    }
    const std::string sign = ellipsis(columns, charset);
    return join(cells.begin(), advance(cells.begin(), cells.end(), columns - columnsOf(sign))) + sign;
}

std::string clipStart(const std::string& text, int columns, Charset charset) {
    const std::vector<Cell> cells = cellsOf(text);
    if (sumOfColumns(cells.begin(), cells.end()) <= columns) {
        return text;
    }
    const std::string sign = ellipsis(columns, charset);
    const auto rest = advance(cells.rbegin(), cells.rend(), columns - columnsOf(sign));
    return sign + join(rest.base(), cells.end());
}

std::vector<std::string> wrap(const std::string& text, int columns) {
    const std::vector<Cell> cells = cellsOf(text);
    const auto isBlank = [](const Cell& cell) { return cell.bytes == " "; };
    std::vector<std::string> lines;
    auto first = std::find_if_not(cells.begin(), cells.end(), isBlank);
    while (first != cells.end()) {
        auto last = advance(first, cells.end(), std::max(columns, 1));
        if (last == first) {
            ++last;  // wider than a whole line
        }
        if (last != cells.end() && !isBlank(*last)) {
            const auto blank =
                std::find_if(std::make_reverse_iterator(last), std::make_reverse_iterator(first), isBlank);
            last = blank.base() == first ? last : blank.base();
        }
        const auto end =
            std::find_if_not(std::make_reverse_iterator(last), std::make_reverse_iterator(first), isBlank);
        lines.push_back(join(first, end.base()));
        first = std::find_if_not(last, cells.end(), isBlank);
    }
    if (lines.empty()) {
        lines.emplace_back();
    }
    return lines;
}

}  // namespace korva
