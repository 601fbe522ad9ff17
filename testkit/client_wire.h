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

// What is below a client, for tests of what no application sees.
struct Client::Wire {
    std::string id;
    bool connected = false;
    std::unique_ptr<client::MessageProxy> proxy = nullptr; // null before the first connection
};

// SetCB with these fields, and its result.
TESTKIT_API int setCb(Client &client, const client::CallbackFields &fields);

// Sends a request without waiting: the application sees nothing before the time is next advanced.
TESTKIT_API void post(Client &client, const std::string &actionId, std::uint64_t requestId);

// Sends a parcel that the interface need not know.
TESTKIT_API void sendParcel(Client &client, const std::function<void(rpc_port_parcel_h)> &write);

} // namespace nelvo::testkit
