// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include <Ecore.h>
#include <rpc-port.h>

#include "channel.h"
#include "listeners.h"
#include "unique_fd.h"

namespace host {

// The client's side of a connection. An rpc_port_proxy_h is the handle of a proxy. States:
//
//   idle        no channels
//   connecting  both channels have sent a hello; _timer runs until the welcome arrives
//   connected   two channels and no timer, until either channel ends
//
// A callback may destroy or reconnect the proxy whose event it receives. Code that calls callbacks
// therefore holds shared pointers to the proxy and to the names that it passes.
class Proxy : public ChannelOwner, public std::enable_shared_from_this<Proxy> {
public:
    int connect(const char *appId, const char *port);
    void destroy();
    void setSender(const char *appId) { _sender = appId ? appId : ""; }
    // Returns null unless the proxy is connected.
    Channel *channel(rpc_port_port_type_e type) const;

    const char *peer() const override { return _target->appId.c_str(); }
    void onFrame(Channel &channel) override;
    void onEnd(Channel &channel) override;

    Listeners<rpc_port_proxy_connected_event_cb> connectedCbs;
    Listeners<rpc_port_proxy_disconnected_event_cb> disconnectedCbs;
    Listeners<rpc_port_proxy_rejected_event_cb> rejectedCbs;
    Listeners<rpc_port_proxy_received_event_cb> receivedCbs;

private:
    struct Target {
        std::string appId;
        std::string port;
    };

    static Eina_Bool onTimeoutCb(void *data);

    bool isConnected() const { return _main && !_timer; }
    void sayHello(UniqueFd mainSocket, UniqueFd callbackSocket, const std::string &sender);
    void onWelcome();
    void end();
    void reset();

    std::string _sender; // empty: use the process's own app id
    std::shared_ptr<const Target> _target;
    std::shared_ptr<Channel> _main;
    std::shared_ptr<Channel> _callback;
    void *_timer = nullptr;
};

} // namespace host
