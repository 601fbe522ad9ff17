// SPDX-License-Identifier: Apache-2.0
#include "soak_ledger.h"

#include <new>

#include <sys/mman.h>

namespace nelvo::testkit::soak {

Ledger &makeLedger(std::size_t requests, bool isVirtual) {
    const std::size_t size = sizeof(Ledger) + requests * sizeof(Entry);
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    auto *ledger = static_cast<Ledger *>(memory);
    ledger->requests = requests;
    ledger->isVirtual = isVirtual;
    ledger->entries = reinterpret_cast<Entry *>(ledger + 1);
    return *ledger;
}

} // namespace nelvo::testkit::soak
