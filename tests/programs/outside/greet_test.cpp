// SPDX-License-Identifier: Apache-2.0
// A test without a framework: one action that is answered and one that never is.
#include <cstdio>

#include <nelvo.h>
#include <nelvo/testkit.h>

using namespace nelvo::testkit;

namespace {

void greet(void *handler, bundle *, void *) {
    nelvo_complete_action_execution(handler, "Hello!");
}

void hesitate(void *, bundle *, void *) {}

bool isAnswered(Simulation &device, Client &client, const char *action, const Fields &wanted) {
    client.answers.clear();
    client.request(action);
    device.advance(31);
    const bool isRight = client.answers.size() == 1 && client.answers[0].fields == wanted;
    std::printf("%s: %s\n", action, isRight ? "as it should be" : "WRONG");
    return isRight;
}

} // namespace

int main() {
    Simulation device;
    Client client;
    nelvo_initialize();
    nelvo_set_action_execution_cb("greet", greet, nullptr);
    nelvo_set_action_execution_cb("hesitate", hesitate, nullptr);
    const bool holds = client.join() &&
                       isAnswered(device, client, "greet", success("result", "Hello!")) &&
                       isAnswered(device, client, "hesitate",
                                  failure("result", "Action execution request timed out"));
    nelvo_deinitialize();
    return holds ? 0 : 1;
}
