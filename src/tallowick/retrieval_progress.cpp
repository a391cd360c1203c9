// SPDX-License-Identifier: Apache-2.0
#include "tallowick/retrieval_progress.h"

#include <algorithm>
#include <string>

namespace korva {
namespace {

// A list that understates its files must not make what is left negative.
std::int64_t less(std::int64_t left, std::int64_t done) {
    return std::max<std::int64_t>(left - done, 0);
}

}  // namespace

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus& status, std::int64_t totalSize,
                                                           std::int32_t totalFiles)
    : status_(status), startTime_(std::time(nullptr)), sizeLeft_(totalSize), filesLeft_(totalFiles) {}

void FileRetrievalProgressUpdater::finishFile() {
    --filesLeft_;
    status_.setTransferFilesLeft(std::to_string(filesLeft_));
    status_.saveFile();
}

void FileRetrievalProgressUpdater::operator()(int bytes) {
    sizeLeft_ = less(sizeLeft_, bytes);
    currentFileSizeLeft_ = less(currentFileSizeLeft_, bytes);
    bytesDone_ += bytes;
    status_.setTransferSpeed(std::to_string(speed()));
    status_.setTransferSizeLeft(std::to_string(sizeLeft_));
    status_.setTransferCurrentFileSizeLeft(std::to_string(currentFileSizeLeft_));
    status_.saveFile();
}

// Whole bytes per second; 0 within the first second and when the clock has been set back.
std::int64_t FileRetrievalProgressUpdater::speed() const {
    const std::time_t elapsed = std::time(nullptr) - startTime_;
    return elapsed > 0 ? bytesDone_ / elapsed : 0;
}

}  // namespace korva
