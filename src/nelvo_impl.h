// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <string>

#include <bundle.h>
#include <nelvo.h>

#include "message/message.h"

namespace nelvo {

// The core: decides once whether the application may use the library at all, starts and stops the
// library, passes each request to the handler of its kind, and keeps each client's response
// callback.
//
// While _isInitialized is set, the stub is listening and every other singleton exists.
//
// Main-loop thread only, except getInstance(). An application may stop the library from inside any
// of its callbacks.
class NelvoImpl {
public:
    // Null if the object could not be made; every later call then returns null as well.
    static NelvoImpl *getInstance();

    int initialize();
    int deinitialize();

    // Serves one request of a client that is allowed to send it. The bundle stays the caller's. If
    // the request is malformed or memory is short, logs that and changes nothing.
    void executeRequest(const char *sender, bundle *request);

    // What the exported functions of similar names do, once their arguments have been checked.
    int setAppStateRequestCb(nelvo_app_state_request_cb callback, void *userData);
    int unsetAppStateRequestCb();
    int completeAppStateRequest(void *actionHandler, const std::string &appContext);
    int setActionExcutionCb(const std::string &actionId, nelvo_action_execution_cb callback,
                            void *userData);
    int unsetExecuteActionCb(const std::string &actionId);
    int completeActionExecution(void *actionHandler, const std::string &result);

    // The id of the action whose request has this handler; empty if no request has it.
    std::string getActionName(void *actionHandler);

    // The response callback of each client, by the client's app id. The entry stays when the client
    // disconnects.
    std::map<std::string, std::unique_ptr<rpc_port::message::stub::message::ResponseCB>>
        _responseCallbacks;

private:
    NelvoImpl();
    static void _initInstance();
    static int getAppSdkVersion(std::string appId);
    bool checkInitialized(const char *function) const;

    static std::atomic<NelvoImpl *> _instance;

    bool _isInitialized = false;
    std::unique_ptr<rpc_port::message::stub::message> _messageStub;
    int _tidlSupported; // 1 when the SDK version in the manifest admits the transport, else 0
};

} // namespace nelvo
