// SPDX-License-Identifier: Apache-2.0
// The physical limit: nothing but the bytes, and calls that wait by themselves.
#include "../frames.h"

int main(int argc, char **argv) {
    return bench::run(argc, argv, bench::frames<bench::Blocking>());
}
