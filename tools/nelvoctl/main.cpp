// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

int main(int argc, char **argv) {
    return nelvoctl::run(argc, argv);
}
