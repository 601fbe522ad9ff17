// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

namespace nelvo::testkit::soak {

// Sends so many requests to an application, from five honest clients while three hostile ones do
// what they can: garbage, never reading, vanishing, overtaking. Over sockets, each in a process of
// its own, in the folder NELVO_HOST_RUNTIME_DIR; in virtual time, all in one process, which is one of
// its own too.
//
// Prints what came of it. True when each honest request was answered or overtaken as the
// application says, once; when memory, blocks, descriptors, timers and handles are back where they
// were after the first tenth whenever the hostile clients have gone; and at the start, in the end.
bool overSockets(std::size_t requests);
bool inVirtualTime(std::size_t requests);

} // namespace nelvo::testkit::soak
