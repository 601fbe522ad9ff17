// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <bundle.h>

#include "client/session.h"

namespace nelvoctl {

// What passed between a client and a served port.
struct TapEvent {
    double seconds; // of the monotonic clock
    nelvo::client::EventKind kind;
    std::string connection;          // unique in the process
    std::string client;              // its id
    std::shared_ptr<bundle> content; // of a request or an answer; null if it holds none
};

// Reads the stream that host/tap.h describes, and takes the parcels for those of the "message" interface.
class TapReader {
public:
    std::function<void(const TapEvent &)> event;

    void take(const char *bytes, std::size_t size);

private:
    bool takeEvent();

    std::string _pending; // the beginning of an event
};

} // namespace nelvoctl
