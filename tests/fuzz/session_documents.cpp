// SPDX-License-Identifier: Apache-2.0
#include "commons/exception.h"
#include "fuzz/fuzz_target.h"
#include "watch/frame.h"
#include "watch/line_report.h"

#include <algorithm>
#include <clocale>
#include <string>

namespace {

using korva::fuzz::require;

constexpr char kSeparator = '\x1E';
constexpr std::size_t kMostRecords = 16;
constexpr korva::FrameSize kSizes[] = {{80, 24}, {40, 8}, {7, 3}, {1, 1}};

template <typename T>
void put(korva::Document<T>& document, T (*parse)(const std::string&), const std::string& text,
         korva::FileTime time) {
    document.exists = true;
    document.changed = time;
    try {
        document.content = parse(text);
        document.problem.clear();
    } catch (const korva::ExTraceable&) {
        document.problem = "is not a whole document of its kind";
    }
}

/// A record is a letter, for the file, and what it holds; the later a file comes, the newer it is.
void put(korva::Snapshot& snapshot, const std::string& record, korva::FileTime time) {
    const std::string text = record.substr(1);
    switch (record.front()) {
        case 's':
            put(snapshot.status, korva::parseRunStatus, text, time);
            break;
        case 'd':
            put(snapshot.dumper, korva::parseDumperStatus, text, time);
            break;
        case 'r':
            put(snapshot.result, korva::parseOutcome, text, time);
            break;
        case 't':
            put(snapshot.transferResult, korva::parseOutcome, text, time);
            break;
        default:
            snapshot.directory = text;
    }
}

void requireShowable(const std::string& text) {
    require(std::none_of(text.begin(), text.end(),
                         [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == '\x7F'; }),
            "nothing that is shown moves the cursor");
}

void requireFrame(const korva::Frame& frame, int columns) {
    for (const korva::Row& row : frame) {
        const std::string text = korva::plainText(row);
        requireShowable(text);
        require(korva::columnsOf(text) <= columns, "each row fits");
    }
}

void show(const korva::Snapshot& snapshot, const korva::Moment& moment, korva::LineReport& lines,
          korva::LineReport::Time time) {
    for (const korva::FrameSize size : kSizes) {
        const korva::Frame frame = korva::renderScreen(snapshot, moment, size, korva::Charset::kUnicode);
        require(frame.size() <= static_cast<std::size_t>(size.rows), "the screen fits");
        requireFrame(frame, size.columns);
    }
    requireFrame(korva::renderReport(snapshot, moment, 80, korva::Charset::kAscii), 80);
    for (const std::string& line : lines.update(snapshot, moment, time)) {
        requireShowable(line);
    }
}

}  // namespace

/// The input is what files of a session directory hold, one after another: records of a letter and a text,
/// separated by U+001E.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool knowsWidths = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
    require(knowsWidths, "there is the locale C.UTF-8");
    const std::string input = korva::fuzz::textOf(data, size);
    korva::Snapshot snapshot;
    snapshot.directory = "session";
    korva::LineReport lines(korva::Charset::kUnicode);
    korva::FileTime time{};
    korva::LineReport::Time now{};
    std::size_t begin = 0;
    for (std::size_t records = 0; begin < input.size() && records < kMostRecords; ++records) {
        const std::size_t end = std::min(input.find(kSeparator, begin), input.size());
        if (end > begin) {
            time += std::chrono::seconds(7);
            now += std::chrono::seconds(7);
            put(snapshot, input.substr(begin, end - begin), time);
            show(snapshot, {time + std::chrono::seconds(3), "12:00:00", 1 << 20}, lines, now);
        }
        begin = end + 1;
    }
    return 0;
}
