// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace host {

// Logs an error line about a mistake of the application, which a device might punish with a crash, and
// tells whoever asked for it with host_sim_on_misuse().
void misuse(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Whether each bundle must own all of its memory, so that a memory checker, or the test kit, notices
// the use of a bundle or of its values after the bundle has been freed.
bool isMemoryChecked();

// Stands at the end of an object that C callers free, and tells them when they use it afterwards. It
// can as long as the memory has not been used again.
class LifeMark {
public:
    LifeMark() = default;
    LifeMark(const LifeMark &) {}
    LifeMark &operator=(const LifeMark &) = delete;
    ~LifeMark() { _value = 0; }

    // Logs the misuse, by the named function, of what has been freed.
    bool isAlive(const char *function, const char *what) const {
        return _value == ALIVE || reportUse(function, what);
    }

private:
    static constexpr std::uint32_t ALIVE = 0xA11FEu;

    static bool reportUse(const char *function, const char *what);

    volatile std::uint32_t _value = ALIVE; // volatile, or compilers would leave out the last store
};

} // namespace host
