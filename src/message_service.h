// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <unordered_set>

#include "message/message.h"

namespace nelvo {

// Serves one client connection: lets an allowed sender register its response callback with the core
// and send requests to it.
//
// The senders that are allowed stand in a file, one app id per line; without the file everybody is.
// A connection reads the file until it has found a line in it, and keeps to what it found then.
//
// Main-loop thread only. Throws nothing.
class messageService : public rpc_port::message::stub::message::ServiceBase {
    using ResponseCB = rpc_port::message::stub::message::ResponseCB;

public:
    class Factory final : public ServiceBase::Factory {
    public:
        std::unique_ptr<ServiceBase> CreateService(std::string sender,
                                                   std::string instance) override;
    };

    messageService(std::string sender, std::string instance);

    void OnCreate() override;
    void OnTerminate() override; // the callback of a client that has gone stays registered
    int SetCB(std::unique_ptr<ResponseCB> callback) override; // 0, or -1 when refused
    int UnsetCB() override;                                   // likewise
    void Send(rpc_port::message::Bundle request) override;

private:
    bool isPermittedSender();

    std::unordered_set<std::string> _allowedAppIds; // empty: not read yet, or not a line in it
};

} // namespace nelvo
