// SPDX-License-Identifier: Apache-2.0
// Each byte is a step of tests/support/play.h: any input is a script, parcels of any content among its
// steps, and the model beside it knows what must come of it.
#include <host/sim.h>

#include "fuzzing.h"
#include "platform_faults.h"
#include "play.h"

void nelvo::testkit::fuzz(Input input) {
    static const std::string steps = Play::letters() + "{}[],-0123456789";
    static Simulation &device = *new Simulation;
    std::string script = input.rest();
    for (char &step : script)
        if (steps.find(step) == std::string::npos)
            step = steps[static_cast<unsigned char>(step) % steps.size()];
    Play play(device, Play::Check::MODEL);
    play.play(script);
    play.play("DX2X");
    for (const std::string &complaint : play.complaints())
        require(false, complaint);
    require(host_sim_timer_count() == 0, "the number of timers");
    require(liveHandles() == NO_HANDLES, liveHandles());
}
