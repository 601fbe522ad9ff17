// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <rpc-port.h>

// The next parcel's text; "(none)" when the port has none.
inline std::string takeText(rpc_port_h port) {
    rpc_port_parcel_h parcel = nullptr;
    if (rpc_port_parcel_create_from_port(&parcel, port) != RPC_PORT_ERROR_NONE) {
        return "(none)";
    }
    char *text = nullptr;
    EXPECT_EQ(RPC_PORT_ERROR_NONE, rpc_port_parcel_read_string(parcel, &text));
    const std::string copy = text ? text : "(no text)";
    std::free(text);
    rpc_port_parcel_destroy(parcel);
    return copy;
}

inline int sendText(rpc_port_h port, const std::string &text) {
    rpc_port_parcel_h parcel = nullptr;
    EXPECT_EQ(RPC_PORT_ERROR_NONE, rpc_port_parcel_create(&parcel));
    EXPECT_EQ(RPC_PORT_ERROR_NONE, rpc_port_parcel_write_string(parcel, text.c_str()));
    const int result = rpc_port_parcel_send(parcel, port);
    rpc_port_parcel_destroy(parcel);
    return result;
}

// A stub that writes down its events: "+sender", "-sender" and, unless onReceived takes the parcel,
// its text. The hooks run after that.
class Server {
public:
    explicit Server(const char *port = "message") {
        EXPECT_EQ(RPC_PORT_ERROR_NONE, rpc_port_stub_create(&handle, port));
        rpc_port_stub_add_connected_event_cb(handle, connectedCb, this);
        rpc_port_stub_add_disconnected_event_cb(handle, disconnectedCb, this);
        rpc_port_stub_add_received_event_cb(handle, receivedCb, this);
        listened = rpc_port_stub_listen(handle);
    }
    ~Server() { destroy(); }
    void destroy() { rpc_port_stub_destroy(handle); }

    rpc_port_h port(rpc_port_port_type_e type, const std::string &instance) const {
        rpc_port_h found = nullptr;
        const int result = rpc_port_stub_get_port(handle, type, instance.c_str(), &found);
        EXPECT_EQ(result == RPC_PORT_ERROR_NONE, found != nullptr);
        return found;
    }
    rpc_port_h lastPort(rpc_port_port_type_e type) const { return port(type, instances.back()); }

    rpc_port_stub_h handle = nullptr;
    int listened = 0;
    std::vector<std::string> events;
    std::vector<std::string> instances;
    std::function<void()> onConnected = [] {};
    std::function<void()> onDisconnected = [] {};
    std::function<int(rpc_port_h)> onReceived = [this](rpc_port_h port) {
        events.push_back(takeText(port));
        return 0;
    };

private:
    static void connectedCb(const char *sender, const char *instance, void *data) {
        auto &self = *static_cast<Server *>(data);
        self.events.push_back(std::string("+") + sender);
        self.instances.emplace_back(instance);
        const auto hook = self.onConnected;
        hook();
    }
    static void disconnectedCb(const char *sender, const char *, void *data) {
        auto &self = *static_cast<Server *>(data);
        self.events.push_back(std::string("-") + sender);
        const auto hook = self.onDisconnected;
        hook();
    }
    static int receivedCb(const char *, const char *, rpc_port_h port, void *data) {
        const auto hook = static_cast<Server *>(data)->onReceived;
        return hook(port);
    }
};

// A proxy that writes down its events: "connected", "disconnected", "rejected" and the texts that
// come on the callback port. The hook gets each event after that.
class Client {
public:
    Client() {
        EXPECT_EQ(RPC_PORT_ERROR_NONE, rpc_port_proxy_create(&handle));
        rpc_port_proxy_add_connected_event_cb(handle, connectedCb, this);
        rpc_port_proxy_add_disconnected_event_cb(handle, disconnectedCb, this);
        rpc_port_proxy_add_rejected_event_cb(handle, rejectedCb, this);
        rpc_port_proxy_add_received_event_cb(handle, receivedCb, this);
    }
    ~Client() { destroy(); }
    void destroy() { rpc_port_proxy_destroy(handle); }
    int connect(const char *port = "message") {
        return rpc_port_proxy_connect(handle, "demo.app", port);
    }
    rpc_port_h port(rpc_port_port_type_e type) const {
        rpc_port_h found = nullptr;
        rpc_port_proxy_get_port(handle, type, &found);
        return found;
    }
    rpc_port_h mainPort() const { return port(RPC_PORT_PORT_MAIN); }

    rpc_port_proxy_h handle = nullptr;
    std::vector<std::string> events;
    std::function<void(const std::string &)> onEvent = [](const std::string &) {};

private:
    static void note(void *data, const std::string &event) {
        auto &self = *static_cast<Client *>(data);
        self.events.push_back(event);
        const auto hook = self.onEvent;
        hook(event);
    }
    static void connectedCb(const char *receiver, const char *, rpc_port_h port, void *data) {
        EXPECT_STREQ("demo.app", receiver);
        EXPECT_EQ(static_cast<Client *>(data)->mainPort(), port);
        note(data, "connected");
    }
    static void disconnectedCb(const char *, const char *, void *data) {
        note(data, "disconnected");
    }
    static void rejectedCb(const char *, const char *, void *data) { note(data, "rejected"); }
    static void receivedCb(const char *, const char *, void *data) {
        note(data, takeText(static_cast<Client *>(data)->port(RPC_PORT_PORT_CALLBACK)));
    }
};
