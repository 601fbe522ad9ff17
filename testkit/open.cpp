// SPDX-License-Identifier: Apache-2.0
// Stands before the C library's open() and fopen(), so that the allow list that is opened is the simulated one. Does
// not include <fcntl.h>, whose declarations differ with the compiler's options.
#include <cstdarg>
#include <cstdio>

#include <dlfcn.h>

#include "simulated_app.h"
#include "testkit_export.h"

namespace nelvo::testkit {
namespace {

using Open = int (*)(const char *, int, ...);

int openFile(const char *function, const char *path, int flags, unsigned mode) {
    if (isAllowList(path))
        return openAllowList();
    return reinterpret_cast<Open>(dlsym(RTLD_NEXT, function))(path, flags, mode);
}

std::FILE *openStream(const char *function, const char *path, const char *mode) {
    if (isAllowList(path)) {
        const int fd = openAllowList();
        return fd >= 0 ? fdopen(fd, mode) : nullptr;
    }
    using OpenStream = std::FILE *(*)(const char *, const char *);
    return reinterpret_cast<OpenStream>(dlsym(RTLD_NEXT, function))(path, mode);
}

} // namespace
} // namespace nelvo::testkit

// The mode is passed on even if there is none: the C library reads it only where there must be one.
#define OPEN_FILE(flags)                                                                           \
    std::va_list values;                                                                           \
    va_start(values, flags);                                                                       \
    const unsigned mode = va_arg(values, unsigned);                                                \
    va_end(values);                                                                                \
    return nelvo::testkit::openFile(__func__, path, flags, mode)

extern "C" TESTKIT_API int open(const char *path, int flags, ...) {
    OPEN_FILE(flags);
}

extern "C" TESTKIT_API int open64(const char *path, int flags, ...) {
    OPEN_FILE(flags);
}

extern "C" TESTKIT_API FILE *fopen(const char *path, const char *mode) {
    return nelvo::testkit::openStream(__func__, path, mode);
}

extern "C" TESTKIT_API FILE *fopen64(const char *path, const char *mode) {
    return nelvo::testkit::openStream(__func__, path, mode);
}
