// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "xml/agent_file_list.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace korva {

/// Bytes that the text of a content list may have.
constexpr std::size_t kMaxListSize = std::size_t{16} << 20;

/// Reads a content list as getFileList() does, but throws CantRetrieveContentList for the size of a file that
/// is no number.
std::unique_ptr<AgentFileList> readContentList(const std::string& text);

/// The bytes of all files of a list, as it tells them. `shown` makes a path fit for a message. Throws
/// CantRetrieveContentList for a negative size and for a total that is no number, NoSuchAttribute for a list
/// without one.
std::int64_t totalOfList(const AgentFileList& list,
                         const std::function<std::string(const std::string&)>& shown);

}  // namespace korva
