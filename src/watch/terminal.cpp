// SPDX-License-Identifier: Apache-2.0
#include "watch/terminal.h"

#include <curses.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <tuple>
#include <utility>

namespace korva {
namespace {

SCREEN* theScreen = nullptr;

// What is redirected to standard input is not meant for this program.
FILE* keys() {
    FILE* const none = isatty(STDIN_FILENO) == 1 ? nullptr : std::fopen("/dev/null", "re");
    return none != nullptr ? none : stdin;
}

enum Colours : short { kGreen = 1, kYellow, kRed, kCyan };

void prepareColours() {
    if (!has_colors() || start_color() == ERR) {
        return;
    }
    const bool hasDefault = use_default_colors() != ERR;
    const auto background = static_cast<short>(hasDefault ? -1 : COLOR_BLACK);
    init_pair(kGreen, COLOR_GREEN, background);
    init_pair(kYellow, COLOR_YELLOW, background);
    init_pair(kRed, COLOR_RED, background);
    init_pair(kCyan, COLOR_CYAN, background);
}

chtype attributesOf(Style style) {
    const auto coloured = [](Colours colour) {
        return has_colors() ? static_cast<chtype>(COLOR_PAIR(colour)) : A_NORMAL;
    };
    switch (style) {
        case Style::kDim:
            return A_DIM;  // a grey of its own would be the background of some users
        case Style::kStrong:
            return A_BOLD;
        case Style::kTitle:
            return A_REVERSE | A_BOLD;
        case Style::kLabel:
            return coloured(kCyan);
        case Style::kGood:
            return coloured(kGreen) | A_BOLD;
        case Style::kWarning:
            return coloured(kYellow) | A_BOLD;
        case Style::kBad:
            return coloured(kRed) | A_BOLD;
        case Style::kBar:
            return coloured(kGreen);
        case Style::kPlain:
            break;
    }
    return A_NORMAL;
}

}  // namespace

std::unique_ptr<Terminal> Terminal::take() {
    theScreen = newterm(nullptr, stdout, keys());
    if (theScreen == nullptr) {
        return nullptr;
    }
    std::unique_ptr<Terminal> terminal(new Terminal);
    const char* const moves = tigetstr("cup");  // the capability to move the cursor
    if (moves == nullptr || reinterpret_cast<std::intptr_t>(moves) == -1) {
        return nullptr;
    }
    cbreak();
    noecho();
    nodelay(stdscr, TRUE);
    std::ignore = curs_set(0);  // not every terminal can hide it
    prepareColours();
    return terminal;
}

Terminal::~Terminal() {
    endwin();
    delscreen(std::exchange(theScreen, nullptr));
}

FrameSize Terminal::size() const {
    return {getmaxx(stdscr), getmaxy(stdscr)};
}

void Terminal::show(const Frame& frame) {
    erase();
    int y = 0;
    for (const Row& row : frame) {
        move(y++, 0);
        for (const Span& span : row) {
            attrset(static_cast<int>(attributesOf(span.style)));
            addstr(span.text.c_str());
        }
    }
    attrset(static_cast<int>(A_NORMAL));
    refresh();
}

int Terminal::pressedKey() {
    const int key = getch();
    return key == ERR ? -1 : key;
}

}  // namespace korva
