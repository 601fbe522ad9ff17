// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "applications.h"
#include "json_rpc.h"
#include "mcp_tools.h"

namespace nelvoctl {

// A server of the Model Context Protocol, for one client: bytes in, messages out.
//
// It speaks both eras of the protocol at once. A request whose _meta names the protocol version is
// modern and stands for itself. All others are legacy, and belong to the session that "initialize"
// opens.
class McpServer {
public:
    struct Settings {
        Applications::Settings applications;
        bool isReadOnly = false;
        double intervalSeconds = 1; // between two requests for a state that is subscribed to
    };
    using Send = std::function<void(const nlohmann::json &message)>;

    // Finished is called when the input has ended and everything asked is answered. Both functions
    // are called from the main loop or by receive() and endInput(). Throws Failure.
    McpServer(const Settings &settings, Send send, std::function<void()> finished);
    McpServer(const McpServer &) = delete;
    McpServer &operator=(const McpServer &) = delete;

    void receive(std::string_view bytes);
    void endInput();

private:
    // A request that is to be answered.
    struct Call {
        nlohmann::json id;
        std::string method;
        nlohmann::json params;
        bool isModern;
    };
    struct Batch;
    // One that is not answered yet.
    struct Pending {
        std::function<void()> cancel; // null: nothing to cancel
        std::shared_ptr<Batch> batch; // null: not part of one
    };
    // What a modern client listens to, or the legacy session.
    struct Listener {
        nlohmann::json id; // of the request; null for the legacy session
        bool tools = false;
        bool resources = false;
        std::set<std::string> states; // application ids
    };
    // Returns the result, or nothing if the answer comes later. Throws RpcError.
    using Handler = std::optional<nlohmann::json> (McpServer::*)(const Call &);
    struct Method {
        bool isLegacy, isModern;
        Handler handle;
        bool isCacheable = false;
    };
    static const std::map<std::string, Method> METHODS;

    void takeLine(const std::string *line);
    void takeBatch(const nlohmann::json &documents);
    void takeMessage(const nlohmann::json &document, const std::shared_ptr<Batch> &batch);
    void takeNotification(const RpcMessage &message);
    void serve(const Call &call);
    bool isModern(const RpcMessage &message) const;
    nlohmann::json completed(const Call &call, nlohmann::json result) const;

    void answer(const nlohmann::json &id, const nlohmann::json &message);
    void send(const nlohmann::json &message, const std::shared_ptr<Batch> &batch);
    void endIfDone();

    std::optional<nlohmann::json> initialize(const Call &call);
    std::optional<nlohmann::json> discover(const Call &call);
    std::optional<nlohmann::json> ping(const Call &call);
    std::optional<nlohmann::json> setLevel(const Call &call);
    std::optional<nlohmann::json> listTools(const Call &call);
    std::optional<nlohmann::json> callTool(const Call &call);
    std::optional<nlohmann::json> listResources(const Call &call);
    std::optional<nlohmann::json> listTemplates(const Call &call);
    std::optional<nlohmann::json> readResource(const Call &call);
    std::optional<nlohmann::json> complete(const Call &call);
    std::optional<nlohmann::json> subscribe(const Call &call);
    std::optional<nlohmann::json> unsubscribe(const Call &call);
    std::optional<nlohmann::json> listen(const Call &call);

    nlohmann::json capabilities(bool isModern) const;
    std::string instructions() const;
    Application &applicationOf(const Call &call, const std::string &uri);
    RpcError resourceError(const Call &call, const std::string &uri, const Failure &failure) const;
    void watch(Listener &listener, const std::string &appId);
    void unwatch(Listener &listener, const std::string &appId);
    void endListening(const nlohmann::json &id);
    void notify(const Listener &listener, const char *method, nlohmann::json params);
    void notifyOfLists();
    void notifyOfState(const std::string &appId);
    void warn(const std::string &text);

    const Settings _settings;
    const Send _send;
    const std::function<void()> _finished;
    LineReader _reader;
    bool _hasInputEnded = false;
    std::map<nlohmann::json, Pending> _pending; // by request id
    std::string _legacyVersion;                 // empty: not initialised
    bool _isInitialized = false;                // the client has said so
    std::size_t _logLevel;                      // the lowest that the legacy client wants
    Listener _session;
    std::vector<Listener> _listeners;
    Applications _applications;
    McpTools _tools;
};

} // namespace nelvoctl
