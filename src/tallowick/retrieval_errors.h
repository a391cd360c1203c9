// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "commons/exception.h"

namespace korva {

KORVA_ERROR_TAG(CantRetrieveDump, "Error during dump retrieval")
KORVA_ERROR_TAG(
    CantRetrieveDumpFile,
    "Error during dump file retrieving. \nRemote agent failed with the following stderr messages: %1%")
KORVA_ERROR_TAG(CantRetrieveContentList, "Error during content list retrieval: %1%")
KORVA_ERROR_TAG(CantRetrieveContentFile, "Failed to retrieve file '%1%' from '%2%' to '%3%': %4%")
KORVA_ERROR_TAG(NotEnoughSpace,
                "Selected filesystem has only %1% free space, but %2% is needed for operation")
KORVA_ERROR_TAG(WrongMd5Sum, "File '%1%' is not what the content list says: %2% instead of %3%")
KORVA_ERROR_TAG(UnableToRemoveRemoteFile, "Unable to remove remote file '%1%' from '%2%': %3%")

}  // namespace korva
