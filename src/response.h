// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <bundle.h>

namespace nelvo {

// The answers of both request handlers, which differ in resultKey. Each answer has the id of the
// current request. The caller owns the bundle; null if an entry cannot be added.
bundle *createSuccessResponse(const char *resultKey, const std::string &result);
bundle *createFailureResponse(const char *resultKey, const char *statusMessage);

// Sends a response to the client of the latest request, and frees the response in any case. Logs
// each failure and throws nothing.
//
// Returns NELVO_ERROR_NONE, NELVO_ERROR_OUT_OF_MEMORY, or NELVO_ERROR_OPERATION_FAILED if the
// client cannot be reached.
int sendResponse(bundle *response);

} // namespace nelvo
