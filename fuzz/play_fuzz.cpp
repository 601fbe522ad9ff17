// SPDX-License-Identifier: Apache-2.0
// Each byte is a step of tests/support/play.h: any input is a
// script, parcels of any content among its steps, and the model beside it knows what must come of
// it.
#include <host/sim.h>

#include "fuzzing.h"
#include "platform_faults.h"
#include "play.h"

void nelvo::testkit::fuzz(Input input) {
    static const std::string steps = Play::letters() + "{[", inParcel = "0123456789,-]";
    static Simulation &device = *new Simulation;
    std::string script = input.rest();
    bool isParcel = false, isDeed = false;
    for (char &step : script) {
        const std::string known = isParcel ? inParcel : isDeed ? Play::letters() + "}" : steps;
        if (known.find(step) == std::string::npos)
            step = known[static_cast<unsigned char>(step) % known.size()];
        isParcel = isParcel ? step != ']' : step == '[';
        isDeed = isDeed ? step != '}' : step == '{';
    }
    Play play(device, Play::Check::MODEL);
    play.play(script);
    play.play("DX2X");
    for (const std::string &complaint : play.complaints())
        require(false, complaint);
    require(host_sim_timer_count() == 0, "the number of timers");
    require(liveHandles() == NO_HANDLES, liveHandles());
}
