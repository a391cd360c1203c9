// SPDX-License-Identifier: Apache-2.0
#include "ssh/io_channels.h"

namespace korva {

int IOStreamReadChannel::read(char* buffer, unsigned size) {
    if (stream_.eof()) {
        return 0;
    }
    stream_.read(buffer, static_cast<std::streamsize>(size));
    return static_cast<int>(stream_.gcount());
}

int IOStreamWriteChannel::write(const char* buffer, unsigned size) {
    stream_.write(buffer, static_cast<std::streamsize>(size));
    return stream_ ? static_cast<int>(size) : -1;
}

int SshChannelWriteChannel::write(const char* buffer, unsigned size) {
    return channel_.write(buffer, size);
}

}  // namespace korva
