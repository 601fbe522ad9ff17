// SPDX-License-Identifier: Apache-2.0
// What any C++ program costs: it reports to the descriptor given that it runs, and waits.
#include <cstdlib>

#include "../clock.h"

int main(int argc, char **argv) {
    if (argc < 2 || !bench::reportReady(std::atoi(argv[1])))
        return 1;
    pause();
}
