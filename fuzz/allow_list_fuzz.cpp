// SPDX-License-Identifier: Apache-2.0
// A line with the sender, then the allow list: it is admitted
// if one of its lines is the sender, and keeps to the list that it has read unless that is empty.
#include <nelvo/testkit.h>

#include "fuzzing.h"
#include "message_service.h"

void nelvo::testkit::fuzz(Input input) {
    static Simulation &device = *new Simulation;
    const std::string sender = input.line();
    device.setAllowList(Input(input).rest());
    const bool isEmpty = input.isEmpty();
    bool isListed = false;
    while (!input.isEmpty())
        isListed |= input.line() == sender;

    messageService service(sender, "instance");
    require(service.UnsetCB() == (isListed ? 0 : -1), "who is admitted");
    device.setAllowList("somebody\n");
    isListed |= isEmpty && sender == "somebody";
    require(service.UnsetCB() == (isListed ? 0 : -1), "who is admitted later");
}
