// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Ecore.h>
#include <bundle.h>

#include "soak_ledger.h"

namespace nelvo::testkit::soak {

// The application of a soak: completes most requests at once, some a little later and, in virtual
// time, some never, and enters in the ledger what must become of each honest one.
class Application {
public:
    explicit Application(Ledger &ledger);

    void start(); // the library, and its callbacks
    void stop();
    void tellLevel(); // when it has been asked for

    // Runs in a process of its own, until it is told to stop.
    static int run(Ledger &ledger);

private:
    static void actionCb(void *handler, bundle *request, void *data);
    static void fillCb(void *handler, bundle *request, void *data);
    static void stateCb(void *handler, void *data);
    static Eina_Bool settleCb(void *data);
    static Eina_Bool tellCb(void *data);

    void called(void *handler, std::uint64_t id, bool isState);
    void overtake();
    void complete();
    void meet(Fate fate);

    Ledger &_ledger;
    // The request that is not settled; no timer: there is none.
    Ecore_Timer *_settleTimer = nullptr;
    void *_handler = nullptr;
    std::uint64_t _id = 0;
    bool _isState = false;
    bool _isLeft = false; // to the library's watch
};

} // namespace nelvo::testkit::soak
