// SPDX-License-Identifier: Apache-2.0
#include "platform_faults.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <utility>

#include <dlfcn.h>

#include <Ecore.h>
#include <app_common.h>
#include <app_info.h>
#include <bundle.h>
#include <rpc-port.h>

#include "fault_scope.h"

// Where this shared library's code begins and ends; the linker defines both.
extern "C" __attribute__((visibility("hidden"))) const char __ehdr_start;
extern "C" __attribute__((visibility("hidden"))) const char etext;

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
int bundles = 0;
int parcels = 0;
int stubs = 0;
int infos = 0;

// Asked with every call of the platform.
bool isOurs(const void *caller) {
    const std::less<const void *> isBefore;
    return !isBefore(caller, &__ehdr_start) && isBefore(caller, &etext);
}

bool fails(const char *function, const void *caller) {
    if (!fault.function || std::strcmp(fault.function, function) != 0 || !FaultScope::allowed())
        return false;
    if (isOurs(caller))
        return false;
    if (fault.callsBefore-- > 0)
        return false;
    if (fault.failed > 0 && !fault.always)
        return false;
    ++fault.failed;
    return true;
}

} // namespace

bool standsBeforePlatform() {
    return isOurs(dlsym(RTLD_DEFAULT, "bundle_create"));
}

void failPlatformCall(const std::string &function, int error, int nth, bool always) {
    for (const FailableCall &call : failableCalls())
        if (function == call.function) {
            fault = {call.function, error, nth - 1, always, 0};
            return;
        }
    throw std::invalid_argument(function + " can't be made to fail; see failPlatformCall()");
}

int stopFailing() {
    const int failed = fault.failed;
    fault = {};
    return failed;
}

// A callback that the application's side has given to the platform. The platform calls ours, so that
// allocations may fail for as long as the library runs.
template <typename Callback>
struct Registered {
    Callback callback = nullptr;
    void *data = nullptr;
    Ecore_Timer *timer = nullptr; // of a timer's callback
};

// Those of a stub, until it is destroyed; the application may have stubs of its own.
std::multimap<rpc_port_stub_h, std::shared_ptr<void>> stubCallbacks;

template <typename Callback>
void *keep(rpc_port_stub_h stub, Callback callback, void *data) {
    const FaultScope scope(false);
    auto record = std::make_shared<Registered<Callback>>();
    *record = {callback, data, nullptr};
    return stubCallbacks.emplace(stub, std::move(record))->second.get();
}

void onEvent(const char *sender, const char *instance, void *data) {
    const auto event = *static_cast<Registered<rpc_port_stub_connected_event_cb> *>(data);
    const FaultScope scope(true);
    event.callback(sender, instance, event.data);
}

int onReceived(const char *sender, const char *instance, rpc_port_h port, void *data) {
    const auto received = *static_cast<Registered<rpc_port_stub_received_event_cb> *>(data);
    int result = 0;
    {
        const FaultScope scope(true);
        result = received.callback(sender, instance, port, received.data);
    }
    hooks().received(result);
    return result;
}

// The library's timers that have neither ended nor been deleted.
std::set<Ecore_Timer *> timers;

Eina_Bool onTimer(void *data) {
    auto *timer = static_cast<Registered<Ecore_Task_Cb> *>(data);
    const FaultScope scope(true);
    const Eina_Bool again = timer->callback(timer->data);
    if (again == ECORE_CALLBACK_CANCEL) {
        const FaultScope none(false);
        timers.erase(timer->timer);
        delete timer;
    }
    return again;
}

// The timer deletes its record when it ends; a timer that could not be added has none.
Ecore_Timer *addTimer(Ecore_Timer *(*real)(double, Ecore_Task_Cb, const void *), double in,
                      Ecore_Task_Cb callback, const void *data) {
    const FaultScope scope(false);
    auto *record = new Registered<Ecore_Task_Cb>{callback, const_cast<void *>(data)};
    hooks().timer(callback, record->data);
    record->timer = real(in, onTimer, record);
    if (record->timer)
        return *timers.insert(record->timer).first;
    delete record;
    return nullptr;
}

void *deleteTimer(void *(*real)(Ecore_Timer *), Ecore_Timer *timer) {
    const FaultScope scope(false);
    if (timers.erase(timer) == 0)
        std::abort(); // on a device as well, some day
    auto *record = static_cast<Registered<Ecore_Task_Cb> *>(real(timer));
    void *data = record ? record->data : nullptr;
    delete record;
    return data;
}

const std::vector<FailableCall> &failableCalls() {
    const std::vector<int> memory = {RPC_PORT_ERROR_OUT_OF_MEMORY};
    const std::vector<int> ports = {RPC_PORT_ERROR_IO_ERROR, RPC_PORT_ERROR_OUT_OF_MEMORY,
                                    RPC_PORT_ERROR_INVALID_PARAMETER,
                                    RPC_PORT_ERROR_PERMISSION_DENIED};
    static const std::vector<FailableCall> calls = {
        {"bundle_create", {0}},
        {"bundle_dup", {0}},
        {"bundle_add_str",
         {BUNDLE_ERROR_OUT_OF_MEMORY, BUNDLE_ERROR_KEY_EXISTS, BUNDLE_ERROR_INVALID_PARAMETER}},
        {"bundle_add_byte", {BUNDLE_ERROR_OUT_OF_MEMORY, BUNDLE_ERROR_KEY_EXISTS}},
        {"bundle_get_str", {BUNDLE_ERROR_KEY_NOT_AVAILABLE, BUNDLE_ERROR_INVALID_PARAMETER}},
        {"bundle_get_byte", {BUNDLE_ERROR_INVALID_PARAMETER}},
        {"bundle_keyval_get_basic_val", {BUNDLE_ERROR_INVALID_PARAMETER}},
        {"app_get_id", {-22, -12}},
        {"app_info_create", {-22, -12}},
        {"app_info_foreach_metadata", {-22, -12}},
        {"ecore_timer_add", {0}},
        {"rpc_port_stub_create", ports},
        {"rpc_port_stub_listen", ports},
        {"rpc_port_stub_add_connected_event_cb", ports},
        {"rpc_port_stub_add_disconnected_event_cb", ports},
        {"rpc_port_stub_add_received_event_cb", ports},
        {"rpc_port_stub_get_port", ports},
        {"rpc_port_parcel_create", memory},
        {"rpc_port_parcel_create_from_port", ports},
        {"rpc_port_parcel_send", ports},
        {"rpc_port_parcel_write_int32", memory},
        {"rpc_port_parcel_write_bool", memory},
        {"rpc_port_parcel_write_string", memory},
        {"rpc_port_parcel_write_bundle", memory},
        {"rpc_port_parcel_read_int32", ports},
        {"rpc_port_parcel_read_bool", ports},
        {"rpc_port_parcel_read_bundle", ports},
    };
    return calls;
}

Hooks &hooks() {
    static Hooks hooks;
    return hooks;
}

// What a call that fails may leave in its out-argument: nothing to be used, or freed.
template <typename Value>
void spoil(Value **out) {
    *out = reinterpret_cast<Value *>(8);
}
void spoil(int *out) {
    *out = -559038737;
}
void spoil(bool *out) {
    *out = !*out;
}

std::string liveHandles() {
    return std::to_string(bundles) + " bundles, " + std::to_string(parcels) + " parcels, " +
           std::to_string(stubs) + " stubs, " + std::to_string(infos) + " app infos, " +
           std::to_string(timers.size()) + " timers";
}

} // namespace nelvo::testkit

// Each wrapper stands before the platform's function of the same name.
#define WRAP(type, name, parameters, arguments, failure, counted)                                  \
    extern "C" TESTKIT_API type name parameters {                                                  \
        static const auto real = reinterpret_cast<type(*) parameters>(dlsym(RTLD_NEXT, #name));    \
        if (nelvo::testkit::fails(#name, __builtin_return_address(0)))                             \
            return failure;                                                                        \
        const auto result = real arguments;                                                        \
        if (sizeof(#counted) > 1 && !nelvo::testkit::isOurs(__builtin_return_address(0))) {        \
            counted;                                                                               \
        }                                                                                          \
        return result;                                                                             \
    }
#define WRAP_INT(name, parameters, arguments)                                                      \
    WRAP(int, name, parameters, arguments, nelvo::testkit::fault.error, )
#define WRAP_OUT(name, out, parameters, arguments)                                                 \
    WRAP(int, name, parameters, arguments,                                                         \
         (nelvo::testkit::spoil(out), nelvo::testkit::fault.error), )
#define WRAP_NEW(name, live, out, parameters, arguments)                                           \
    WRAP(int, name, parameters, arguments,                                                         \
         (nelvo::testkit::spoil(out), nelvo::testkit::fault.error),                                \
         nelvo::testkit::live += result == 0)
#define WRAP_END(name, live, parameters, arguments)                                                \
    WRAP(int, name, parameters, arguments, 0, --nelvo::testkit::live)

WRAP(bundle *, bundle_create, (), (), nullptr, nelvo::testkit::bundles += result != nullptr)
WRAP(bundle *, bundle_dup, (bundle * from), (from), nullptr,
     nelvo::testkit::bundles += result != nullptr)
WRAP_INT(bundle_add_str, (bundle * b, const char *key, const char *str), (b, key, str))
WRAP_INT(bundle_add_byte, (bundle * b, const char *key, const void *byte, const size_t size),
         (b, key, byte, size))
WRAP_OUT(bundle_get_str, str, (bundle * b, const char *key, char **str), (b, key, str))
WRAP_OUT(bundle_get_byte, byte, (bundle * b, const char *key, void **byte, size_t *size),
         (b, key, byte, size))
WRAP_OUT(bundle_keyval_get_basic_val, val, (bundle_keyval_t * kv, void **val, size_t *size),
         (kv, val, size))
WRAP_INT(app_get_id, (char **id), (id))
WRAP_NEW(app_info_create, infos, info, (const char *appId, app_info_h *info), (appId, info))
WRAP_INT(app_info_foreach_metadata, (app_info_h info, app_info_metadata_cb callback, void *data),
         (info, callback, data))
WRAP_NEW(rpc_port_stub_create, stubs, h, (rpc_port_stub_h * h, const char *port), (h, port))
WRAP_INT(rpc_port_stub_listen, (rpc_port_stub_h h), (h))
WRAP_INT(rpc_port_stub_add_connected_event_cb,
         (rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb, void *data),
         (h, nelvo::testkit::onEvent, nelvo::testkit::keep(h, cb, data)))
WRAP_INT(rpc_port_stub_add_disconnected_event_cb,
         (rpc_port_stub_h h, rpc_port_stub_disconnected_event_cb cb, void *data),
         (h, nelvo::testkit::onEvent, nelvo::testkit::keep(h, cb, data)))
WRAP_INT(rpc_port_stub_add_received_event_cb,
         (rpc_port_stub_h h, rpc_port_stub_received_event_cb cb, void *data),
         (h, nelvo::testkit::onReceived, nelvo::testkit::keep(h, cb, data)))
WRAP_OUT(rpc_port_stub_get_port, port,
         (rpc_port_stub_h h, rpc_port_port_type_e type, const char *instance, rpc_port_h *port),
         (h, type, instance, port))
WRAP_NEW(rpc_port_parcel_create, parcels, h, (rpc_port_parcel_h * h), (h))
WRAP_NEW(rpc_port_parcel_create_from_port, parcels, h, (rpc_port_parcel_h * h, rpc_port_h port),
         (h, port))
WRAP_INT(rpc_port_parcel_send, (rpc_port_parcel_h h, rpc_port_h port), (h, port))
WRAP_INT(rpc_port_parcel_write_int32, (rpc_port_parcel_h h, int i), (h, i))
WRAP_INT(rpc_port_parcel_write_bool, (rpc_port_parcel_h h, bool b), (h, b))
WRAP_INT(rpc_port_parcel_write_string, (rpc_port_parcel_h h, const char *str), (h, str))
WRAP_INT(rpc_port_parcel_write_bundle, (rpc_port_parcel_h h, bundle *b), (h, b))
WRAP_OUT(rpc_port_parcel_read_int32, i, (rpc_port_parcel_h h, int *i), (h, i))
WRAP_OUT(rpc_port_parcel_read_bool, b, (rpc_port_parcel_h h, bool *b), (h, b))
WRAP_NEW(rpc_port_parcel_read_bundle, bundles, b, (rpc_port_parcel_h h, bundle **b), (h, b))

WRAP_END(bundle_free, bundles, (bundle * b), (b))
WRAP_END(app_info_destroy, infos, (app_info_h info), (info))
WRAP(int, rpc_port_stub_destroy, (rpc_port_stub_h h), (h), 0,
     (--nelvo::testkit::stubs, nelvo::testkit::stubCallbacks.erase(h)))
WRAP_END(rpc_port_parcel_destroy, parcels, (rpc_port_parcel_h h), (h))

extern "C" TESTKIT_API void bundle_foreach(bundle *b, bundle_iterator_t iterator, void *data) {
    using Iterate = void (*)(bundle *, bundle_iterator_t, void *);
    static const auto real = reinterpret_cast<Iterate>(dlsym(RTLD_NEXT, "bundle_foreach"));
    if (!nelvo::testkit::isOurs(__builtin_return_address(0)))
        nelvo::testkit::hooks().iterator(iterator);
    real(b, iterator, data);
}

extern "C" TESTKIT_API Ecore_Timer *ecore_timer_add(double in, Ecore_Task_Cb func,
                                                    const void *data) {
    using Add = Ecore_Timer *(*)(double, Ecore_Task_Cb, const void *);
    static const auto real = reinterpret_cast<Add>(dlsym(RTLD_NEXT, "ecore_timer_add"));
    if (nelvo::testkit::isOurs(__builtin_return_address(0)))
        return real(in, func, data);
    if (nelvo::testkit::fails("ecore_timer_add", __builtin_return_address(0)))
        return nullptr;
    return nelvo::testkit::addTimer(real, in, func, data);
}

extern "C" TESTKIT_API void *ecore_timer_del(Ecore_Timer *timer) {
    using Delete = void *(*)(Ecore_Timer *);
    static const auto real = reinterpret_cast<Delete>(dlsym(RTLD_NEXT, "ecore_timer_del"));
    if (nelvo::testkit::isOurs(__builtin_return_address(0)))
        return real(timer);
    return nelvo::testkit::deleteTimer(real, timer);
}
