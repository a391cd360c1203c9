// SPDX-License-Identifier: Apache-2.0
#include "tallowick/content_list.h"

#include "tallowick/retrieval_errors.h"

#include <boost/lexical_cast.hpp>
#include <boost/numeric/conversion/cast.hpp>

#include <typeinfo>

namespace korva {
namespace {

constexpr const char* kSourceName = "./actions";

}  // namespace

std::unique_ptr<AgentFileList> readContentList(const std::string& text) {
    try {
        return getFileList(text);
    } catch (const boost::bad_lexical_cast&) {
        throw KORVA_EXC(CantRetrieveContentList) % "the size of a file is not a number of bytes";
    }
}

std::int64_t totalOfList(const AgentFileList& list,
                         const std::function<std::string(const std::string&)>& shown) {
    for (const DumpFile& file : list.getFileList()) {
        if (file.size < 0) {
            throw KORVA_EXC(CantRetrieveContentList) % ("the size of '" + shown(file.name) + "' is negative");
        }
    }
    try {
        return boost::numeric_cast<std::int64_t>(list.getTotalSize());
    } catch (const std::bad_cast&) {  // no number, or one that is out of range
        throw KORVA_EXC(CantRetrieveContentList) % "the total size is not a number of bytes";
    }
}

}  // namespace korva
