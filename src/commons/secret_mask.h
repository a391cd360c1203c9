// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace korva {

/// The passwords of a run, and how they are hidden in text that comes from elsewhere: each occurrence, whole
/// or as one of its blank-separated parts of four bytes or more (interpreters quote parts), becomes
/// "********".
class Secrets {
  public:
    /// An empty secret hides nothing.
    void add(const std::string& secret);

    /// `text` with the secrets hidden.
    std::string mask(std::string_view text) const;

  private:
    friend class SecretMaskStream;
    void addPattern(std::string_view pattern);
    std::vector<bool> coverage(std::string_view text) const;
    std::size_t undecidedTail(std::string_view text) const;

    std::vector<std::string> patterns_;
};

/// Hides secrets in a text that arrives in chunks, also where one crosses the border of two chunks: what it
/// returns, put together, is Secrets::mask() of the whole text.
class SecretMaskStream {
  public:
    /// `secrets` must outlive the stream.
    explicit SecretMaskStream(const Secrets& secrets) : secrets_(secrets) {}

    /// Takes the next chunk. Returns what can be shown by now: an end that may be the beginning of a secret
    /// is kept back.
    std::string push(std::string_view chunk);

    /// The text has ended: returns what was kept back.
    std::string finish();

  private:
    std::string show(std::size_t size);

    const Secrets& secrets_;
    std::string pending_;            // shorter than the longest secret
    std::size_t coveredBefore_ = 0;  // its first bytes that are known to belong to a secret
    bool inMark_ = false;            // whether the last byte that was shown belonged to a secret
};

}  // namespace korva
