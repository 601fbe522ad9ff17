// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <bundle.h>
#include <rpc-port.h>

#include "client/message_proxy.h"
#include "testkit_export.h"

namespace nelvo::testkit {

// A Nelvo client on the simulated device. Each call has reached the application, and what that sent
// has come back, when it returns.
class TESTKIT_API Client {
public:
    explicit Client(std::string id = "demo.client");
    ~Client();

    // Connects anew, in place of an earlier connection; false when the application refuses.
    bool connect(const std::string &appId = "demo.app");
    void disconnect();
    bool connected() const { return _connected; }

    // What the application returned; -100 when there was no reply.
    int setCb(const client::CallbackFields &fields = {1, 1, false});
    int unsetCb();

    // Connects and registers the response callback.
    bool join(const std::string &appId = "demo.app") { return connect(appId) && setCb() == 0; }

    void request(const std::string &actionId, std::uint64_t requestId = 1,
                 const std::string &params = "");
    void send(bundle *request);

    // For parcels that the interface does not know: the port to write them to.
    rpc_port_h mainPort() const;

    // Sends without waiting: the application sees nothing before the time is next advanced.
    void post(const std::string &actionId, std::uint64_t requestId);

    std::vector<client::Answer> answers; // in the order in which they came
    int malformed = 0;                   // what came on the callback port and was no answer

private:
    std::string _id;
    bool _connected = false;
    std::unique_ptr<client::MessageProxy> _proxy;
};

} // namespace nelvo::testkit
