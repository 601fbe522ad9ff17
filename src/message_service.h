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
// A file lists the allowed senders, one app id per line; without the file every sender is allowed.
// A connection reads the file again with each call until it has found a line in the file, and keeps
// that list from then on.
//
// Main-loop thread only. SetCB(), UnsetCB() and Send() throw nothing; CreateService() may throw
// std::bad_alloc.
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
