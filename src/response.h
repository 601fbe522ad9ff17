// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <bundle.h>

namespace nelvo {

// The answers of both request handlers; resultKey is what they differ in. Each carries the id of
// the current request. The caller owns the bundle; null when it can't be built whole.
bundle *createSuccessResponse(const char *resultKey, const std::string &result);
bundle *createFailureResponse(const char *resultKey, const char *statusMessage);

// Sends a response to the client of the latest request, and frees it in any case. Logs what goes
// wrong and throws nothing.
//
// Returns NELVO_ERROR_NONE, NELVO_ERROR_OUT_OF_MEMORY, or NELVO_ERROR_OPERATION_FAILED when the
// client can't be reached.
int sendResponse(bundle *response);

} // namespace nelvo
