// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace nelvo {

// Entries of a request. The library itself uses neither type nor parameters.
inline constexpr const char *ACTION_ID = "actionId";
inline constexpr const char *REQUEST_ID = "requestId"; // 8 bytes; in every response too

// The action id that asks for the application's state.
inline constexpr const char *ACTION_GET_APP_STATE = "getAppContext";

// Entries of a response.
inline constexpr const char *KEY_ACTION_RESULT = "result";
inline constexpr const char *KEY_APP_STATE = "appContext";
inline constexpr const char *KEY_STATUS_CODE = "status_code";
inline constexpr const char *KEY_STATUS_MESSAGE = "status_msg"; // failures only

// Values of KEY_STATUS_CODE.
inline constexpr const char *ACTION_EXECUTION_SUCCESS = "ACTION_EXECUTION_SUCCESS";
inline constexpr const char *ACTION_EXECUTION_FAILURE = "ACTION_EXECUTION_FAILURE";

// Their product, in seconds, is how long the application may take to complete a request.
inline constexpr double COMPLETE_CHECKING_TIME = 0.1;
inline constexpr double COMPLETE_WAITING_MAX_COUNT = 300.0;

} // namespace nelvo
