// SPDX-License-Identifier: Apache-2.0
#include "watch/frame.h"

#include "watch/progress.h"
#include "watch/quantities.h"

#include <algorithm>
#include <utility>

namespace korva {
namespace {

constexpr int kLabelColumns = 11;  // with the margin
constexpr int kWidestBar = 44;

/// What goes first when there is not enough room: the higher, the sooner.
enum Rank { kEssential, kChief, kUseful, kDetail, kOrnament };

class Composer {
  public:
    Composer(const Snapshot& snapshot, const Moment& moment, int columns, Charset charset)
        : snapshot_(snapshot),
          moment_(moment),
          columns_(std::max(columns, 1)),
          charset_(charset),
          situation_(judge(snapshot)) {}

    void title();
    void body();
    /// Drops what has no place in that many rows.
    void fit(int rows);
    Frame take();

  private:
    struct RankedRow {
        Row spans;
        Rank rank;
        bool goes = false;
    };

    void row(Rank rank, Row spans);
    void blank();
    void field(Rank rank, const std::string& label, const std::string& text, Style style = Style::kPlain);
    void bar(Rank rank, const std::string& label, const Share& share, const std::string& text);
    void paragraph(Rank first, Rank others, const std::string& label, const std::string& text, Style style);

    void running(const RunStatus& status);
    void fetching(const TransferStatus& transfer);
    void currentFile(const TransferStatus& transfer);
    void deploying(const DeploymentStatus& deployment);
    void dumper();
    void lastWord();
    void ended(const Document<Outcome>& outcome);
    void messages(const Outcome& outcome, const std::string& name);
    void message(const ResultMessage& message, bool isCause);
    template <typename T>
    void problem(const Document<T>& document);
    std::chrono::seconds age(FileTime when) const;
    std::string clean(const std::string& text) const { return toTerminalText(text, charset_); }
    int textColumns() const { return std::max(columns_ - kLabelColumns - 1, 1); }

    const Snapshot& snapshot_;
    const Moment& moment_;
    int columns_;
    Charset charset_;
    Situation situation_;
    std::vector<RankedRow> rows_;
};

std::string padded(const std::string& text, int columns) {
    return text + std::string(static_cast<std::size_t>(std::max(columns - columnsOf(text), 0)), ' ');
}

std::string repeated(const char* text, int count) {
    std::string all;
    for (; count > 0; --count) {
        all += text;
    }
    return all;
}

// Whatever is in a row went through here, so that no text gets to the terminal as it came.
void Composer::row(Rank rank, Row spans) {
    int room = columns_;
    for (Span& span : spans) {
        span.text = clipEnd(clean(span.text), room, charset_);
        room -= columnsOf(span.text);
    }
    rows_.push_back({std::move(spans), rank, false});
}

void Composer::blank() {
    rows_.push_back({{}, kOrnament, false});
}

void Composer::field(Rank rank, const std::string& label, const std::string& text, Style style) {
    row(rank, {{padded(" " + label, kLabelColumns), Style::kLabel}, {text, style}});
}

void Composer::paragraph(Rank first, Rank others, const std::string& label, const std::string& text,
                         Style style) {
    std::string heading = label;
    Rank rank = first;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find('\n', begin), text.size());
        const std::string line = clean(text.substr(begin, end - begin));
        begin = end + 1;
        if (line.find_first_not_of(' ') == std::string::npos) {
            continue;
        }
        for (const std::string& piece : wrap(line, textColumns())) {
            field(rank, heading, piece, style);
            heading.clear();
            rank = others;
        }
    }
}

void Composer::bar(Rank rank, const std::string& label, const Share& share, const std::string& text) {
    constexpr int kPercentColumns = 7;
    constexpr int kNarrowest = 6;
    constexpr int kTextColumns = 20;
    const bool isUnicode = charset_ == Charset::kUnicode;
    const int percent = percentOf(share.done, share.total);
    const int room = columns_ - kLabelColumns - kPercentColumns - std::max(kTextColumns, columnsOf(text)) - 2;
    const int length = std::min(room, kWidestBar);
    std::string number = std::to_string(percent) + " %";
    Row spans = {{padded(" " + label, kLabelColumns), Style::kLabel}};
    if (length >= kNarrowest) {
        const int filled = percent * length / 100;
        spans.push_back({repeated(isUnicode ? "\u2588" : "#", filled), Style::kBar});
        spans.push_back({repeated(isUnicode ? "\u2591" : "-", length - filled), Style::kDim});
        number = padded("", kPercentColumns - 1 - columnsOf(number)) + number;
    }
    spans.push_back({number, Style::kStrong});
    spans.push_back({"  " + text, Style::kPlain});
    row(rank, std::move(spans));
}

std::chrono::seconds Composer::age(FileTime when) const {
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(moment_.now - when);
    return std::max(age, std::chrono::seconds(0));  // a clock may have been set back
}

void Composer::title() {
    const std::string program = " tallowick-watch  ";
    const int room = columns_ - columnsOf(program);
    std::string directory = clipStart(clean(snapshot_.directory), std::max(room, 0), charset_);
    const std::string clock = moment_.clock + " ";
    std::string right;
    const int gap = room - columnsOf(directory) - columnsOf(clock);
    if (gap >= 2) {
        right = padded("", gap) + clock;
    } else {
        directory = padded(directory, room);
    }
    row(kChief, {{program, Style::kTitle}, {directory + right, Style::kTitle}});
    blank();
}

void Composer::body() {
    switch (situation_.phase) {
        case Situation::Phase::kNoDirectory:
            paragraph(kEssential, kUseful, "State", "The directory " + snapshot_.problem + ".",
                      Style::kWarning);
            break;
        case Situation::Phase::kNothing:
            paragraph(kEssential, kUseful, "State", "No run has told anything here yet.", Style::kStrong);
            break;
        case Situation::Phase::kBegun:
            paragraph(kEssential, kUseful, "State", "A run has begun, or is just ending.", Style::kStrong);
            lastWord();
            break;
        case Situation::Phase::kRunning:
            running(*situation_.status);
            break;
        case Situation::Phase::kEnded:
            ended(*situation_.outcome);
            break;
    }
    problem(snapshot_.status);
    problem(snapshot_.dumper);
    problem(snapshot_.result);
    problem(snapshot_.transferResult);
}

void Composer::running(const RunStatus& status) {
    paragraph(kEssential, kUseful, "State", activityOf(status), Style::kStrong);
    if (status.state == RunStatus::State::kFetching) {
        blank();
        fetching(status.transfer);
        blank();
    } else if (status.state == RunStatus::State::kDeploying) {
        blank();
        deploying(status.deployment);
        blank();
    }
    dumper();
    lastWord();
}

void Composer::fetching(const TransferStatus& transfer) {
    if (const auto share = shareOf(transfer.sizeLeft, transfer.sizeTotal)) {
        bar(kChief, "Bytes", *share, formatBytesOf(share->done, share->total));
    }
    if (const auto share = shareOf(transfer.filesLeft, transfer.filesTotal)) {
        bar(kChief, "Files", *share, std::to_string(share->done) + " of " + std::to_string(share->total));
    }
    blank();
    std::string rate;
    if (moment_.rate) {
        rate = formatBytes(*moment_.rate) + "/s";
    }
    if (transfer.speed) {
        rate += (rate.empty() ? "" : ", ") + formatBytes(*transfer.speed) + "/s on average";
    }
    if (!rate.empty()) {
        field(kUseful, "Rate", rate);
    }
    if (const auto left = timeLeft(transfer, moment_.rate)) {
        field(kChief, "Time left", formatDuration(*left));
    } else if (moment_.rate == 0 && transfer.sizeLeft.value_or(0) > 0) {
        field(kChief, "Time left", "unknown while nothing comes", Style::kWarning);
    }
    currentFile(transfer);
}

void Composer::currentFile(const TransferStatus& transfer) {
    if (transfer.currentFile.empty()) {
        return;
    }
    blank();
    field(kUseful, "File", clipStart(clean(transfer.currentFile), textColumns(), charset_));
    const auto share = shareOf(transfer.currentSizeLeft, transfer.currentSize);
    if (share && share->total > 0) {
        bar(kDetail, "", *share, formatBytesOf(share->done, share->total));
    }
}

void Composer::deploying(const DeploymentStatus& deployment) {
    const auto counter = [this](const char* label, std::optional<std::int64_t> completed,
                                std::optional<std::int64_t> total) {
        if (completed && total) {
            const Share share{std::min(*completed, *total), *total};
            bar(kChief, label, share, std::to_string(share.done) + " of " + std::to_string(share.total));
        }
    };
    counter("Accounts", deployment.completedAccounts, deployment.totalAccounts);
    counter("Domains", deployment.completedDomains, deployment.totalDomains);
}

void Composer::dumper() {
    if (!snapshot_.dumper.content) {
        return;
    }
    const DumperStatus& status = *snapshot_.dumper.content;
    if (!situation_.dumperIsCurrent) {
        const bool isFetched = isTransfer(*situation_.status);
        field(kDetail, "Dumper", dumperText(status) + (isFetched ? "" : " (an earlier dump)"), Style::kDim);
        return;
    }
    blank();
    if (const auto share = shareOf(status.left, status.total)) {
        bar(kChief, "Objects", *share, std::to_string(share->done) + " of " + std::to_string(share->total));
    }
    paragraph(kChief, kUseful, "Dumper", dumperText(status),
              status.state == DumperStatus::State::kFailed ? Style::kBad : Style::kPlain);
    blank();
}

void Composer::lastWord() {
    const std::chrono::seconds since = age(situation_.lastWord);
    if (since < kLongSilence) {
        field(kUseful, "Update", formatDuration(since) + " ago", Style::kDim);
    } else {
        field(kChief, "Update",
              "no update for " + std::to_string(since.count()) + " s" +
                  (since < std::chrono::seconds(120) ? "" : " (" + formatDuration(since) + ")"),
              Style::kWarning);
    }
}

void Composer::ended(const Document<Outcome>& outcome) {
    const std::string when = formatDuration(age(outcome.changed)) + " ago";
    const bool known = outcome.content.has_value();
    const bool success = known && outcome.content->success;
    row(kEssential, {{padded(" State", kLabelColumns), Style::kLabel},
                     {success ? "SUCCESS"
                      : known ? "FAILED"
                              : "ended",
                      success ? Style::kGood : Style::kBad},
                     {"  " + when, Style::kPlain},
                     {", " + outcome.name, Style::kDim}});
    if (known) {
        messages(*outcome.content, outcome.name);
    }
    if (success && snapshot_.dumper.content &&
        snapshot_.dumper.content->state == DumperStatus::State::kFinished) {
        blank();
        field(kDetail, "Dumper", dumperText(*snapshot_.dumper.content), Style::kDim);
    }
}

void Composer::messages(const Outcome& outcome, const std::string& name) {
    if (outcome.chains.empty()) {
        if (!outcome.success) {
            blank();
            paragraph(kChief, kUseful, "Cause", "No reason is given: the end of migration.log may tell.",
                      Style::kPlain);
        }
        return;
    }
    bool isCause = true;
    for (const ResultMessage& each : outcome.chains.front()) {
        blank();
        message(each, isCause);
        isCause = false;
    }
    const auto more = static_cast<std::int64_t>(outcome.chains.size() - 1 + outcome.leftOut);
    if (more > 0) {
        blank();
        field(kUseful, "", "and " + counted(more, "more message") + " in " + name, Style::kWarning);
    }
    blank();
    field(kOrnament, "Log", "migration.log has more beside each id", Style::kDim);
}

void Composer::message(const ResultMessage& message, bool isCause) {
    const Style style = message.isWarning ? Style::kWarning : isCause ? Style::kBad : Style::kStrong;
    const std::string code = message.code.empty() ? "without a code" : message.code;
    const std::string label = isCause ? (message.isWarning ? "Warning" : "Cause") : "Led to";
    field(isCause ? kEssential : kUseful, label, code, style);
    if (!message.id.empty()) {
        const Rank rank = isCause ? kChief : kDetail;
        paragraph(rank, rank, "", "id " + message.id, Style::kDim);
    }
    paragraph(isCause ? kEssential : kDetail, isCause ? kUseful : kDetail, "", message.description,
              Style::kPlain);
}

template <typename T>
void Composer::problem(const Document<T>& document) {
    if (!document.problem.empty()) {
        paragraph(kUseful, kDetail, "Note", document.name + " " + document.problem, Style::kWarning);
    }
}

void Composer::fit(int rows) {
    const auto limit = static_cast<std::size_t>(std::max(rows, 0));
    std::size_t excess = rows_.size() - std::min(limit, rows_.size());
    for (int rank = kOrnament; rank >= kEssential; --rank) {
        // From the bottom: what stands above explains what stands below.
        for (auto row = rows_.rbegin(); row != rows_.rend() && excess > 0; ++row) {
            if (row->rank == rank) {
                row->goes = true;
                --excess;
            }
        }
    }
    std::erase_if(rows_, [](const RankedRow& row) { return row.goes; });
}

Frame Composer::take() {
    Frame frame;
    bool wasBlank = true;
    for (RankedRow& each : rows_) {
        const bool isBlank = each.spans.empty();
        if (!isBlank || !wasBlank) {
            frame.push_back(std::move(each.spans));
        }
        wasBlank = isBlank;
    }
    while (!frame.empty() && frame.back().empty()) {
        frame.pop_back();
    }
    return frame;
}

}  // namespace

Frame renderScreen(const Snapshot& snapshot, const Moment& moment, FrameSize size, Charset charset) {
    const std::string help = " q quits";
    Composer composer(snapshot, moment, size.columns, charset);
    composer.title();
    composer.body();
    composer.fit(size.rows);
    Frame frame = composer.take();
    const int rows = static_cast<int>(frame.size());
    if (rows + 1 < size.rows && columnsOf(help) <= size.columns) {
        frame.resize(static_cast<std::size_t>(size.rows) - 1);
        frame.push_back({{help, Style::kDim}});
    }
    return frame;
}

Frame renderReport(const Snapshot& snapshot, const Moment& moment, int columns, Charset charset) {
    Composer composer(snapshot, moment, columns, charset);
    composer.body();
    return composer.take();
}

std::string plainText(const Row& row) {
    std::string text;
    for (const Span& span : row) {
        text += span.text;
    }
    return text;
}

}  // namespace korva
