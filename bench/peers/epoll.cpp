// SPDX-License-Identifier: Apache-2.0
// The limit for processes that have a main loop: nothing but the bytes, awaited with epoll.
#include "../frames.h"

int main(int argc, char **argv) {
    return bench::run(argc, argv, bench::frames<bench::Epoll>());
}
