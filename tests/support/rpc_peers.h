// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include <rpc-port.h>

namespace nelvo::testkit::peers {

// The next parcel's text; "(none)" when the port has none.
inline std::string takeText(rpc_port_h port) {
    rpc_port_parcel_h parcel = nullptr;
    if (rpc_port_parcel_create_from_port(&parcel, port) != RPC_PORT_ERROR_NONE)
        return "(none)";
    char *text = nullptr;
    rpc_port_parcel_read_string(parcel, &text);
    rpc_port_parcel_destroy(parcel);
    const std::unique_ptr<char, void (*)(void *)> owned(text, std::free);
    return text ? text : "(no text)";
}

inline int sendText(rpc_port_h port, const std::string &text) {
    rpc_port_parcel_h parcel = nullptr;
    rpc_port_parcel_create(&parcel);
    int result = rpc_port_parcel_write_string(parcel, text.c_str());
    if (result == RPC_PORT_ERROR_NONE)
        result = rpc_port_parcel_send(parcel, port);
    rpc_port_parcel_destroy(parcel);
    return result;
}

// What a stub and a proxy have in common here: the events so far, and what to do after each.
struct Peer {
    void *handle = nullptr;
    std::string events, instance;
    std::function<void(const std::string &)> onEvent = [](auto &) {};
    std::function<rpc_port_h(rpc_port_port_type_e)> find;

    rpc_port_h port() const { return find(RPC_PORT_PORT_MAIN); }
    rpc_port_h callbackPort() const { return find(RPC_PORT_PORT_CALLBACK); }
    void note(const std::string &event) {
        events += event + " ";
        const auto hook = onEvent; // which may replace itself
        hook(event);
    }
    template <char KIND>
    static void noteCb(const char *sender, const char *id, void *data) {
        auto &self = *static_cast<Peer *>(data);
        self.instance = KIND == '+' ? id : self.instance; // of the latest client
        self.note(KIND == '+' || KIND == '-' ? KIND + std::string(sender)
                  : KIND == 'd'              ? "disconnected"
                  : KIND == 'r'              ? "rejected"
                                             : takeText(self.callbackPort()));
    }
};

// Notes "+sender", "-sender" and, unless onReceived takes the parcel, its text.
struct Server : Peer {
    explicit Server(const char *name = "message") {
        rpc_port_stub_create(&handle, name);
        addCallbacks();
        listened = rpc_port_stub_listen(handle);
        find = [this](auto type) {
            rpc_port_h found = nullptr;
            rpc_port_stub_get_port(handle, type, instance.c_str(), &found);
            return found;
        };
    }
    ~Server() { destroy(); }
    int destroy() { return rpc_port_stub_destroy(handle); }
    void addCallbacks() {
        const auto receivedCb = [](const char *, const char *, rpc_port_h from, void *data) {
            const auto hook = static_cast<Server *>(data)->onReceived;
            return hook(from);
        };
        rpc_port_stub_add_connected_event_cb(handle, noteCb<'+'>, this);
        rpc_port_stub_add_disconnected_event_cb(handle, noteCb<'-'>, this);
        rpc_port_stub_add_received_event_cb(handle, receivedCb, this);
    }

    int listened;
    std::function<int(rpc_port_h)> onReceived = [this](auto from) {
        return note(takeText(from)), 0;
    };
};

// Notes "connected", "disconnected", "rejected" and the texts that come on the callback port.
struct Client : Peer {
    Client() {
        rpc_port_proxy_create(&handle);
        addCallbacks();
        find = [this](auto type) {
            rpc_port_h found = nullptr;
            rpc_port_proxy_get_port(handle, type, &found);
            return found;
        };
    }
    ~Client() { destroy(); }
    int destroy() { return rpc_port_proxy_destroy(handle); }
    void addCallbacks() {
        const auto connectedCb = [](const char *, const char *, rpc_port_h port, void *data) {
            auto &self = *static_cast<Client *>(data);
            self.note(self.port() == port ? "connected" : "connected with another port");
        };
        rpc_port_proxy_add_connected_event_cb(handle, connectedCb, this);
        rpc_port_proxy_add_disconnected_event_cb(handle, noteCb<'d'>, this);
        rpc_port_proxy_add_rejected_event_cb(handle, noteCb<'r'>, this);
        rpc_port_proxy_add_received_event_cb(handle, noteCb<'t'>, this);
    }
    int connect(const char *name = "message", const char *appId = "demo.app") {
        return rpc_port_proxy_connect(handle, appId, name);
    }
};

// Plays a script. 1 to 9: the client sends that; a to z: the server does; R: the client connects
// again; T: it waits for an answer; C, S: the client, the server is destroyed; a dot delivers.
template <typename Deliver>
void play(const std::string &script, Server &server, Client &client, Deliver deliver) {
    for (const char step : script) {
        if (step == '.')
            deliver();
        else if (step == 'C')
            client.destroy();
        else if (step == 'S')
            server.destroy();
        else if (step == 'R')
            client.connect();
        else if (step == 'T')
            client.note(takeText(client.port()));
        else
            sendText(step <= '9' ? client.port() : server.callbackPort(), {step});
    }
}

} // namespace nelvo::testkit::peers
