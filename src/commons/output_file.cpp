// SPDX-License-Identifier: Apache-2.0
#include "commons/output_file.h"

#include "commons/log_line.h"
#include "commons/regular_file.h"
#include "commons/stream_errors.h"
#include "utils/accounts.h"
#include "utils/write_all.h"

#include <log4cpp/Category.hh>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <tuple>
#include <utility>

namespace korva {
namespace {

constexpr const char* kSourceName = "./output_file";

}  // namespace

DescriptorBuffer::DescriptorBuffer(int fd, std::string name) : fd_(fd), name_(std::move(name)) {
    if (fd < 0) {
        fail();
    }
}

bool DescriptorBuffer::close() {
    if (fd() >= 0 && !fd_.close()) {
        fail();
    }
    return error_ == 0;
}

void DescriptorBuffer::fail() {
    if (error_ == 0) {
        error_ = errno;
        errorLine(log4cpp::Category::getInstance("k.OutputFile"))
            << "Cannot write to " << name_ << ": " << std::strerror(error_);
    }
}

std::streamsize DescriptorBuffer::xsputn(const char* data, std::streamsize size) {
    const auto written =
        static_cast<std::streamsize>(writeAll(fd(), std::string_view(data, static_cast<std::size_t>(size))));
    if (written < size) {
        fail();
    }
    return written;
}

OutputFile::OutputFile(const std::string& path)
    : std::ostream(nullptr), buffer_(openRegularFile(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC), path) {
    rdbuf(&buffer_);
    if (!isOpen()) {
        setstate(failbit);
    }
}

void OutputFile::close() {
    if (!buffer_.close() || !*this) {
        throw KORVA_EXC(StreamWrite);
    }
}

std::string OutputFile::failure() const {
    return std::strerror(buffer_.error());
}

void OutputFile::giveTo(const std::string& user) {
    gid_t group = 0;
    const uid_t owner = korva_ugid(user, &group);
    std::ignore = fchown(buffer_.fd(), owner, group);  // the panel's account may be missing
}

}  // namespace korva
