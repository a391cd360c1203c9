// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <libssh2.h>

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace korva::test {

/// What one call of a read gives: bytes (the rest of them stays when they do not fit), or else an error.
struct FakeRead {
    std::string data;
    int error = 0;

    static FakeRead end() { return {}; }
    static FakeRead nothingYet() { return {"", LIBSSH2_ERROR_EAGAIN}; }
    static FakeRead failure(int error) { return {"", error}; }
};

/// How one channel behaves. Results that are used up are followed by success.
struct FakeChannel {
    std::deque<int> startup;
    /// Standard output and standard error. End of file is there when both are used up.
    std::deque<FakeRead> reads[2];
    bool neverEof = false;
    int eofError = 0;
    /// How many bytes a write takes at the most, or its error; all of them once used up.
    std::deque<int> writes;
    std::deque<int> sendEof;
    std::deque<int> adjusts;
    std::deque<unsigned long> pollEvents;
    /// Whether data is said to be queued; the truth once used up.
    std::deque<int> queued;
    std::deque<int> waitClosed;
    std::deque<int> free;
    int exitStatus = 0;
    std::string exitSignal;
    int exitSignalError = 0;

    /// How much the remote side may send.
    unsigned window = 0;
    /// What was written.
    std::string input = {};
    bool freed = false;

    bool hasData() const;
    bool eof() const { return reads[0].empty() && reads[1].empty() && !neverEof; }
};

/// Stands in for libssh2 (link seam) and does what its members say. One at a time.
class FakeLibssh2 {
  public:
    FakeLibssh2();
    FakeLibssh2(const FakeLibssh2&) = delete;
    FakeLibssh2& operator=(const FakeLibssh2&) = delete;
    ~FakeLibssh2();

    /// The script of the next channel; may be changed until it is opened and afterwards.
    FakeChannel& nextChannel();
    /// The channels in the order in which they were opened.
    FakeChannel& channel(std::size_t index) { return *opened_.at(index); }
    std::size_t openedChannels() const { return opened_.size(); }

    /// The calls whose record begins with `prefix`, in their order.
    std::vector<std::string> callsOf(const std::string& prefix) const;
    std::size_t countOf(const std::string& prefix) const { return callsOf(prefix).size(); }

    // The script.
    bool initFails = false;
    std::deque<int> startup;
    std::deque<int> opens;  ///< 0 or the error that comes with a null channel
    std::optional<std::string> methodList = "password,keyboard-interactive";
    std::deque<int> passwordResults;
    std::deque<int> keyboardResults;
    std::vector<int> promptCounts = {1};  ///< of the requests of one keyboard-interactive authentication
    std::string cipher = "aes128-ctr";
    std::string lastErrorText;
    std::deque<int> sessionFree;
    /// Told of each call, by its record, before it takes place.
    std::function<void(const std::string& call)> onCall = [](const std::string&) {};

    // What was seen.
    std::vector<std::string> calls;
    std::vector<std::string> answers;  ///< to the prompts
    bool blocking = true;
    std::vector<std::string> callsInBlockingMode;  ///< of the functions that could then wait for ever
    int sessionsFreed = 0;

    // For the functions that stand in.
    void record(const std::string& call);
    void recordTransfer(const std::string& call);
    int setLastError(int error);
    int lastError() const { return lastError_; }
    char* methodListText();
    FakeChannel* open();

  private:
    int lastError_ = 0;
    std::vector<char> methodListText_;
    std::deque<std::unique_ptr<FakeChannel>> scripted_;
    std::vector<std::unique_ptr<FakeChannel>> opened_;
};

}  // namespace korva::test
