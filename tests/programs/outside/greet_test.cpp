// SPDX-License-Identifier: Apache-2.0
// A test without a framework: one action that is answered.
#include <nelvo.h>
#include <nelvo/testkit.h>

using namespace nelvo::testkit;

int main() {
    Simulation device;
    Client client;
    const auto greet = [](void *handler, bundle *, void *) {
        nelvo_complete_action_execution(handler, "Hello!");
    };
    nelvo_initialize();
    nelvo_set_action_execution_cb("greet", greet, nullptr);
    client.join();
    client.request("greet");
    nelvo_deinitialize();
    return client.answers.size() == 1 && client.answers[0].fields == success("result", "Hello!") ? 0
                                                                                                  : 1;
}
