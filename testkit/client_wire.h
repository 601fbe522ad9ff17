// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <nelvo/testkit.h>

#include "client/message_proxy.h"
#include "testkit_export.h"

namespace nelvo::testkit {

// Access to what a Client is made of, for tests of the library itself.
struct Client::Wire {
    std::string id;
    bool connected = false;
    std::unique_ptr<client::MessageProxy> proxy = nullptr; // null before the first connection
};

// Calls SetCB with these fields and returns its result.
TESTKIT_API int setCb(Client &client, const client::CallbackFields &fields);

// Sends a request without running the main loop: the application gets it with the next advance().
TESTKIT_API void post(Client &client, const std::string &actionId, std::uint64_t requestId);

// Sends a parcel of any content.
TESTKIT_API void sendParcel(Client &client, const std::function<void(rpc_port_parcel_h)> &write);

} // namespace nelvo::testkit
