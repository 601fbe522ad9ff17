// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <bundle.h>
#include <nelvo.h>
#include <nelvo/testkit.h>

namespace nelvo::testkit {

// An application's callback: keeps what it is called with, then does what the test says.
struct Callback {
    std::vector<void *> handlers;
    std::vector<std::string> params; // the "actionParams" of each request
    std::function<void(void *handler, bundle *request)> then = [](void *, bundle *) {};

    void *last() const { return handlers.back(); }
    int count() const { return static_cast<int>(handlers.size()); }

    static void action(void *handler, bundle *request, void *data) {
        auto *self = static_cast<Callback *>(data);
        char *text = nullptr;
        self->handlers.push_back(handler);
        self->params.push_back(bundle_get_str(request, "actionParams", &text) == 0 ? text : "");
        const auto next = self->then; // the test may replace it meanwhile
        next(handler, request);
    }

    static void state(void *handler, void *data) {
        auto *self = static_cast<Callback *>(data);
        self->handlers.push_back(handler);
        const auto next = self->then;
        next(handler, nullptr);
    }

    int registerAction(const char *actionId) {
        return nelvo_set_action_execution_cb(actionId, action, this);
    }
    int registerState() { return nelvo_set_app_state_request_cb(state, this); }
};

} // namespace nelvo::testkit
