// SPDX-License-Identifier: Apache-2.0
// What a client does, and the time that passes: a step of tests/support/exchange.h; any other byte is
// followed by two bytes of size and a parcel. Each is answered, or not, as what can be read from it
// calls for.
#include <nelvo/testkit.h>

#include "exchange.h"
#include "fuzzing.h"
#include "parcel_values.h"

void nelvo::testkit::fuzz(Input input) {
    [[maybe_unused]] static Simulation &device = *new Simulation;
    Exchange exchange;
    while (!input.isEmpty()) {
        const char step = input.take(1)[0];
        if (!exchange.step(step))
            exchange.receive(parcelOf(input.sized()));
    }
    exchange.finish();
}
