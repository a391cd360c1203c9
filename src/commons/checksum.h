// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <istream>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace korva {

/// An MD5 sum of data that comes in pieces.
class Md5 {
  public:
    Md5();

    void update(const char* data, std::size_t size);

    /// Ends the computation: 32 lower-case hex digits. To be called once.
    std::string hexDigest();

  private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> context_;
};

/// The MD5 sum of everything left in the stream, as 32 lower-case hex digits. Throws StreamRead when the
/// stream ends in any other way than at its end.
std::string countMd5Sum(std::istream& stream);

/// The same of the bytes of a string.
std::string countMd5Sum(const std::string& data);

}  // namespace korva
