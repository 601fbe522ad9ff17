// SPDX-License-Identifier: Apache-2.0
#include "platform_faults.h"

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <type_traits>
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

// Called for every call of the platform.
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

// A callback that the application or the library has given to the platform. The platform calls a
// function of the kit instead, which lets allocations fail while the callback runs.
template <typename Callback>
struct Registered {
    Callback callback = nullptr;
    void *data = nullptr;
    Ecore_Timer *timer = nullptr; // of a timer's callback
};

// The callbacks of each stub, until the stub is destroyed; the application may have stubs of its
// own.
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
        return real(timer); // no such timer, which the platform tells the kit
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

// Stores in the out-argument of a failed call a value that must not be used or freed.
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

// A call of one of the functions below.
struct Site {
    const char *function;
    const void *caller;
};
#define HERE (Site{__func__, __builtin_return_address(0)})

// The platform's function that ours, of the same name, stands before.
template <auto OURS>
decltype(OURS) real(const char *function) {
    static const auto found = reinterpret_cast<decltype(OURS)>(dlsym(RTLD_NEXT, function));
    return found;
}

// Calls the platform's function, or fails in its place: with null, or the error that was asked for.
template <auto OURS, typename... Arguments>
auto call(const Site &site, Arguments... arguments) {
    using Result = std::invoke_result_t<decltype(OURS), Arguments...>;
    if (!fails(site.function, site.caller))
        return real<OURS>(site.function)(arguments...);
    if constexpr (std::is_pointer_v<Result>)
        return Result(nullptr);
    else
        return Result(fault.error);
}

// Likewise for a function that stores a value, which must not be used after a failure.
template <auto OURS, typename Value, typename... Arguments>
int callOut(const Site &site, Value *out, Arguments... arguments) {
    const int result = call<OURS>(site, arguments...);
    if (result != 0 && out)
        spoil(out);
    return result;
}

// Likewise for a function that stores a new handle, which is counted unless the kit made the call.
template <auto OURS, typename Handle, typename... Arguments>
int create(const Site &site, int &live, Handle *out, Arguments... arguments) {
    const int result = callOut<OURS>(site, out, arguments...);
    live += result == 0 && !isOurs(site.caller);
    return result;
}

// Likewise for a function that returns a bundle.
template <auto OURS, typename... Arguments>
bundle *createBundle(const Site &site, Arguments... arguments) {
    bundle *const created = call<OURS>(site, arguments...);
    bundles += created && !isOurs(site.caller);
    return created;
}

template <auto OURS, typename Handle>
int destroy(const Site &site, int &live, Handle handle) {
    live -= !isOurs(site.caller);
    return real<OURS>(site.function)(handle);
}

// The platform promises no order of the entries, so that an application must not rely on one.
void iterateBackwards(decltype(&bundle_foreach) iterate, bundle *b, bundle_iterator_t iterator,
                      void *data) {
    struct Choice {
        bundle_iterator_t iterator;
        void *data;
        int wanted;
        int at = 0;
    };
    const auto count = [](const char *, const int, const bundle_keyval_t *, void *entries) {
        ++*static_cast<int *>(entries);
    };
    const auto choose = [](const char *key, const int type, const bundle_keyval_t *kv, void *from) {
        auto *choice = static_cast<Choice *>(from);
        if (choice->at++ == choice->wanted)
            choice->iterator(key, type, kv, choice->data);
    };
    int entries = 0;
    iterate(b, count, &entries);
    while (entries-- > 0) {
        Choice choice{iterator, data, entries};
        iterate(b, choose, &choice);
    }
}

} // namespace nelvo::testkit

// Each of these stands before the platform's function of the same name.
using namespace nelvo::testkit;

bundle *bundle_create() {
    return createBundle<&bundle_create>(HERE);
}
bundle *bundle_dup(bundle *from) {
    return createBundle<&bundle_dup>(HERE, from);
}
int bundle_free(bundle *b) {
    return destroy<&bundle_free>(HERE, bundles, b);
}
int bundle_add_str(bundle *b, const char *key, const char *str) {
    return call<&bundle_add_str>(HERE, b, key, str);
}
int bundle_add_byte(bundle *b, const char *key, const void *byte, const size_t size) {
    return call<&bundle_add_byte>(HERE, b, key, byte, size);
}
int bundle_get_str(bundle *b, const char *key, char **str) {
    return callOut<&bundle_get_str>(HERE, str, b, key, str);
}
int bundle_get_byte(bundle *b, const char *key, void **byte, size_t *size) {
    return callOut<&bundle_get_byte>(HERE, byte, b, key, byte, size);
}
int bundle_keyval_get_basic_val(bundle_keyval_t *kv, void **val, size_t *size) {
    return callOut<&bundle_keyval_get_basic_val>(HERE, val, kv, val, size);
}
int app_get_id(char **id) {
    return call<&app_get_id>(HERE, id);
}
int app_info_create(const char *appId, app_info_h *info) {
    return create<&app_info_create>(HERE, infos, info, appId, info);
}
int app_info_destroy(app_info_h info) {
    return destroy<&app_info_destroy>(HERE, infos, info);
}
int app_info_foreach_metadata(app_info_h info, app_info_metadata_cb callback, void *data) {
    return call<&app_info_foreach_metadata>(HERE, info, callback, data);
}
int rpc_port_stub_create(rpc_port_stub_h *h, const char *port) {
    return create<&rpc_port_stub_create>(HERE, stubs, h, h, port);
}
int rpc_port_stub_destroy(rpc_port_stub_h h) {
    const int result = destroy<&rpc_port_stub_destroy>(HERE, stubs, h);
    stubCallbacks.erase(h);
    return result;
}
int rpc_port_stub_listen(rpc_port_stub_h h) {
    return call<&rpc_port_stub_listen>(HERE, h);
}
int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb,
                                         void *data) {
    return call<&rpc_port_stub_add_connected_event_cb>(HERE, h, onEvent, keep(h, cb, data));
}
int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                            rpc_port_stub_disconnected_event_cb cb, void *data) {
    return call<&rpc_port_stub_add_disconnected_event_cb>(HERE, h, onEvent, keep(h, cb, data));
}
int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb cb,
                                        void *data) {
    return call<&rpc_port_stub_add_received_event_cb>(HERE, h, onReceived, keep(h, cb, data));
}
int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type, const char *instance,
                           rpc_port_h *port) {
    return callOut<&rpc_port_stub_get_port>(HERE, port, h, type, instance, port);
}
int rpc_port_parcel_create(rpc_port_parcel_h *h) {
    return create<&rpc_port_parcel_create>(HERE, parcels, h, h);
}
int rpc_port_parcel_create_from_port(rpc_port_parcel_h *h, rpc_port_h port) {
    return create<&rpc_port_parcel_create_from_port>(HERE, parcels, h, h, port);
}
int rpc_port_parcel_destroy(rpc_port_parcel_h h) {
    return destroy<&rpc_port_parcel_destroy>(HERE, parcels, h);
}
int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port) {
    return call<&rpc_port_parcel_send>(HERE, h, port);
}
int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i) {
    return call<&rpc_port_parcel_write_int32>(HERE, h, i);
}
int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b) {
    return call<&rpc_port_parcel_write_bool>(HERE, h, b);
}
int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char *str) {
    return call<&rpc_port_parcel_write_string>(HERE, h, str);
}
int rpc_port_parcel_write_bundle(rpc_port_parcel_h h, bundle *b) {
    return call<&rpc_port_parcel_write_bundle>(HERE, h, b);
}
int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int *i) {
    return callOut<&rpc_port_parcel_read_int32>(HERE, i, h, i);
}
int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool *b) {
    return callOut<&rpc_port_parcel_read_bool>(HERE, b, h, b);
}
int rpc_port_parcel_read_bundle(rpc_port_parcel_h h, bundle **b) {
    return create<&rpc_port_parcel_read_bundle>(HERE, bundles, b, h, b);
}
void bundle_foreach(bundle *b, bundle_iterator_t iterator, void *data) {
    const auto iterate = real<&bundle_foreach>(__func__);
    if (isOurs(__builtin_return_address(0)))
        return iterate(b, iterator, data);
    hooks().iterator(iterator);
    iterateBackwards(iterate, b, iterator, data);
}
Ecore_Timer *ecore_timer_add(double in, Ecore_Task_Cb func, const void *data) {
    const auto add = real<&ecore_timer_add>(__func__);
    if (isOurs(__builtin_return_address(0)))
        return add(in, func, data);
    return fails(__func__, __builtin_return_address(0)) ? nullptr : addTimer(add, in, func, data);
}
void *ecore_timer_del(Ecore_Timer *timer) {
    const auto remove = real<&ecore_timer_del>(__func__);
    return isOurs(__builtin_return_address(0)) ? remove(timer) : deleteTimer(remove, timer);
}
