// SPDX-License-Identifier: Apache-2.0
#include "platform_faults.h"

#include <cstring>

#include <dlfcn.h>

#include <Ecore.h>
#include <app_common.h>
#include <app_info.h>
#include <bundle.h>
#include <rpc-port.h>

namespace nelvo::testkit {
namespace {

struct Fault {
    const char *function = nullptr; // null: nothing fails
    int error = 0;
    int callsBefore = 0;
    bool always = false;
    int failed = 0;
};

Fault fault;

const void *moduleOf(const void *address) {
    Dl_info info{};
    return dladdr(address, &info) ? info.dli_fbase : nullptr;
}

bool fails(const char *function, const void *caller) {
    if (!fault.function || std::strcmp(fault.function, function) != 0)
        return false;
    if (moduleOf(caller) == moduleOf(&fault)) // a client of ours
        return false;
    if (fault.callsBefore-- > 0)
        return false;
    if (fault.failed > 0 && !fault.always)
        return false;
    ++fault.failed;
    return true;
}

} // namespace

void failPlatformCall(const char *function, int error, int nth, bool always) {
    fault = {function, error, nth - 1, always, 0};
}

int stopFailing() {
    const int failed = fault.failed;
    fault = {};
    return failed;
}

} // namespace nelvo::testkit

// Each wrapper stands before the platform's function of the same name.
#define WRAP(type, name, parameters, arguments, failure)                                           \
    extern "C" TESTKIT_API type name parameters {                                                  \
        static const auto real = reinterpret_cast<type(*) parameters>(dlsym(RTLD_NEXT, #name));    \
        if (nelvo::testkit::fails(#name, __builtin_return_address(0)))                             \
            return failure;                                                                        \
        return real arguments;                                                                     \
    }
#define WRAP_INT(name, parameters, arguments)                                                      \
    WRAP(int, name, parameters, arguments, nelvo::testkit::fault.error)

WRAP(bundle *, bundle_create, (), (), nullptr)
WRAP(bundle *, bundle_dup, (bundle * from), (from), nullptr)
WRAP_INT(bundle_add_str, (bundle * b, const char *key, const char *str), (b, key, str))
WRAP_INT(bundle_add_byte, (bundle * b, const char *key, const void *byte, const size_t size),
         (b, key, byte, size))
WRAP_INT(bundle_get_str, (bundle * b, const char *key, char **str), (b, key, str))
WRAP_INT(bundle_get_byte, (bundle * b, const char *key, void **byte, size_t *size),
         (b, key, byte, size))
WRAP_INT(bundle_keyval_get_basic_val, (bundle_keyval_t * kv, void **val, size_t *size),
         (kv, val, size))
WRAP_INT(app_get_id, (char **id), (id))
WRAP_INT(app_info_create, (const char *appId, app_info_h *info), (appId, info))
WRAP_INT(app_info_foreach_metadata, (app_info_h info, app_info_metadata_cb callback, void *data),
         (info, callback, data))
WRAP(Ecore_Timer *, ecore_timer_add, (double in, Ecore_Task_Cb callback, const void *data),
     (in, callback, data), nullptr)
WRAP_INT(rpc_port_stub_create, (rpc_port_stub_h * h, const char *port), (h, port))
WRAP_INT(rpc_port_stub_listen, (rpc_port_stub_h h), (h))
WRAP_INT(rpc_port_stub_add_connected_event_cb,
         (rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb, void *data), (h, cb, data))
WRAP_INT(rpc_port_stub_add_disconnected_event_cb,
         (rpc_port_stub_h h, rpc_port_stub_disconnected_event_cb cb, void *data), (h, cb, data))
WRAP_INT(rpc_port_stub_add_received_event_cb,
         (rpc_port_stub_h h, rpc_port_stub_received_event_cb cb, void *data), (h, cb, data))
WRAP_INT(rpc_port_stub_get_port,
         (rpc_port_stub_h h, rpc_port_port_type_e type, const char *instance, rpc_port_h *port),
         (h, type, instance, port))
WRAP_INT(rpc_port_parcel_create, (rpc_port_parcel_h * h), (h))
WRAP_INT(rpc_port_parcel_create_from_port, (rpc_port_parcel_h * h, rpc_port_h port), (h, port))
WRAP_INT(rpc_port_parcel_send, (rpc_port_parcel_h h, rpc_port_h port), (h, port))
WRAP_INT(rpc_port_parcel_write_int32, (rpc_port_parcel_h h, int i), (h, i))
WRAP_INT(rpc_port_parcel_write_bool, (rpc_port_parcel_h h, bool b), (h, b))
WRAP_INT(rpc_port_parcel_write_string, (rpc_port_parcel_h h, const char *str), (h, str))
WRAP_INT(rpc_port_parcel_write_bundle, (rpc_port_parcel_h h, bundle *b), (h, b))
WRAP_INT(rpc_port_parcel_read_int32, (rpc_port_parcel_h h, int *i), (h, i))
WRAP_INT(rpc_port_parcel_read_bool, (rpc_port_parcel_h h, bool *b), (h, b))
WRAP_INT(rpc_port_parcel_read_bundle, (rpc_port_parcel_h h, bundle **b), (h, b))
