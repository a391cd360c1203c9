// SPDX-License-Identifier: Apache-2.0
#include "commons/checksum.h"

#include "commons/handle.h"
#include "commons/stream_errors.h"

#include <openssl/evp.h>

#include <array>
#include <stdexcept>
#include <string_view>

namespace korva {
namespace {

constexpr const char* kSourceName = "./checksum";

/// A library in FIPS mode refuses MD5.
void require(int succeeded) {
    if (succeeded != 1) {
        throw std::runtime_error("The cryptographic library cannot compute MD5 sums");
    }
}

}  // namespace

Md5::Md5() : context_(Handle<EVP_MD_CTX*, &EVP_MD_CTX_free>(EVP_MD_CTX_new()).release(), &EVP_MD_CTX_free) {
    require(EVP_DigestInit_ex(context_.get(), EVP_md5(), nullptr));
}

void Md5::update(const char* data, std::size_t size) {
    require(EVP_DigestUpdate(context_.get(), data, size));
}

std::string Md5::hexDigest() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int size = 0;
    require(EVP_DigestFinal_ex(context_.get(), digest.data(), &size));
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        text += kDigits[digest.at(i) >> 4];
        text += kDigits[digest.at(i) & 15];
    }
    return text;
}

std::string countMd5Sum(std::istream& stream) {
    Md5 sum;
    std::array<char, 4096> block;
    do {
        stream.read(block.data(), static_cast<std::streamsize>(block.size()));
        sum.update(block.data(), static_cast<std::size_t>(stream.gcount()));
    } while (stream.good());
    if (!stream.eof()) {
        throw KORVA_EXC(StreamRead);
    }
    return sum.hexDigest();
}

std::string countMd5Sum(const std::string& data) {
    Md5 sum;
    sum.update(data.data(), data.size());
    return sum.hexDigest();
}

}  // namespace korva
