// SPDX-License-Identifier: Apache-2.0 What the library relies on, asked of any platform through its
// public headers alone. Where a case fails on a new platform, the library will not work there as
// documented.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Ecore.h>
#include <app_common.h>
#include <app_info.h>
#include <bundle.h>
#include <dlog.h>
#include <rpc-port-parcel.h>
#include <rpc-port.h>

#include <gmock/gmock.h>

#include "rpc_peers.h"

namespace {

using namespace nelvo::testkit::peers;

using Bundle = std::unique_ptr<bundle, decltype(&bundle_free)>;

Bundle newBundle() {
    return {bundle_create(), bundle_free};
}

// --- bundles -------------------------------------------------------------------------------------

TEST(BundlePlatformTest, KeepsCopiesOfWhatItIsGiven) {
    const Bundle b = newBundle();
    std::string key = "text", text = "value";
    char bytes[] = {1, 0, 3};
    ASSERT_EQ(bundle_add_str(b.get(), key.c_str(), text.c_str()), BUNDLE_ERROR_NONE);
    ASSERT_EQ(bundle_add_byte(b.get(), "bytes", bytes, sizeof bytes), BUNDLE_ERROR_NONE);
    key[0] = text[0] = bytes[0] = '!';
    const Bundle copy(bundle_dup(b.get()), bundle_free);
    EXPECT_EQ(bundle_del(b.get(), "text"), BUNDLE_ERROR_NONE);
    char *kept = nullptr;
    void *keptBytes = nullptr;
    std::size_t size = 0;
    ASSERT_EQ(bundle_get_str(copy.get(), "text", &kept), BUNDLE_ERROR_NONE);
    EXPECT_STREQ(kept, "value");
    ASSERT_EQ(bundle_get_byte(copy.get(), "bytes", &keptBytes, &size), BUNDLE_ERROR_NONE);
    EXPECT_EQ(std::string(static_cast<char *>(keptBytes), size), std::string("\1\0\3", 3));
    EXPECT_EQ(bundle_get_count(b.get()), 1);
    EXPECT_EQ(bundle_dup(nullptr), nullptr);
}

TEST(BundlePlatformTest, SaysWhyItRefuses) {
    const Bundle b = newBundle();
    char *text = nullptr;
    void *bytes = nullptr;
    std::size_t size = 0;
    ASSERT_EQ(bundle_add_str(b.get(), "text", "a"), BUNDLE_ERROR_NONE);
    ASSERT_EQ(bundle_add_byte(b.get(), "bytes", "b", 1), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_add_str(b.get(), "text", "c"), BUNDLE_ERROR_KEY_EXISTS);
    EXPECT_EQ(bundle_get_str(b.get(), "absent", &text), BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    EXPECT_EQ(bundle_get_byte(b.get(), "absent", &bytes, &size), BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    EXPECT_EQ(bundle_get_str(b.get(), "bytes", &text), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_get_byte(b.get(), "text", &bytes, &size), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_free(nullptr), BUNDLE_ERROR_INVALID_PARAMETER);
}

TEST(BundlePlatformTest, ShowsEachEntryWithItsTypeAndSize) {
    const Bundle b = newBundle();
    const char *array[] = {"x", "y"};
    bundle_add_str(b.get(), "text", "abc");
    bundle_add_byte(b.get(), "bytes", "\0\1", 2);
    bundle_add_str_array(b.get(), "array", array, 2);
    std::vector<std::string> seen;
    const auto show = [](const char *key, const int type, const bundle_keyval_t *kv, void *data) {
        auto *entry = const_cast<bundle_keyval_t *>(kv);
        void *value = nullptr;
        std::size_t size = 0;
        EXPECT_EQ(bundle_keyval_get_type(entry), type);
        const bool isArray = bundle_keyval_type_is_array(entry) == 1;
        if (!isArray) {
            EXPECT_EQ(bundle_keyval_get_basic_val(entry, &value, &size), BUNDLE_ERROR_NONE);
        }
        static_cast<std::vector<std::string> *>(data)->push_back(
            std::string(key) +
            (type == BUNDLE_TYPE_STR    ? " text "
             : type == BUNDLE_TYPE_BYTE ? " bytes "
                                        : " other ") +
            (isArray ? "array" : std::to_string(size)));
    };
    bundle_foreach(b.get(), show, &seen);
    EXPECT_THAT(seen,
                testing::UnorderedElementsAre("text text 4", "bytes bytes 2", "array other array"));
}

// --- timers --------------------------------------------------------------------------------------

std::string order;

// A timer's data is its letter: 'r' renews twice, 'n' adds 'z'. The loop ends when all have fired.
Eina_Bool fire(void *data) {
    static char z = 'z';
    const char letter = *static_cast<char *>(data);
    order += letter;
    if (letter == 'n')
        ecore_timer_add(0.001, fire, &z);
    if (order.size() == 6)
        ecore_main_loop_quit();
    return letter == 'r' && std::count(order.begin(), order.end(), 'r') < 3 ? ECORE_CALLBACK_RENEW
                                                                            : ECORE_CALLBACK_CANCEL;
}

TEST(TimerPlatformTest, FiresInOrderUntilItIsCancelledOrDeleted) {
    ecore_init();
    char letters[] = "drbn";
    Ecore_Timer *const deleted = ecore_timer_add(0.001, fire, &letters[0]);
    ASSERT_NE(ecore_timer_add(0.002, fire, &letters[1]), nullptr);
    ASSERT_NE(ecore_timer_add(0.003, fire, &letters[2]), nullptr);
    ASSERT_NE(ecore_timer_add(0.005, fire, &letters[3]), nullptr);
    EXPECT_EQ(ecore_timer_del(deleted), &letters[0]);
    ecore_main_loop_begin();
    EXPECT_EQ(std::count(order.begin(), order.end(), 'r'), 3);
    EXPECT_EQ(order[0], 'r');
    EXPECT_LT(order.find('b'), order.find('n'));
    EXPECT_LT(order.find('n'), order.find('z'));
    ecore_shutdown();
}

// --- parcels and ports ---------------------------------------------------------------------------

TEST(ParcelPlatformTest, GivesValuesBackInTheirOrder) {
    rpc_port_parcel_h parcel = nullptr;
    ASSERT_EQ(rpc_port_parcel_create(&parcel), RPC_PORT_ERROR_NONE);
    const Bundle b = newBundle();
    bundle_add_str(b.get(), "k", "v");
    EXPECT_EQ(rpc_port_parcel_write_int32(parcel, -5), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_write_bool(parcel, true), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_write_string(parcel, "text"), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_write_bundle(parcel, b.get()), RPC_PORT_ERROR_NONE);
    int number = 0;
    bool flag = false;
    char *text = nullptr, *value = nullptr;
    bundle *read = nullptr;
    EXPECT_EQ(rpc_port_parcel_read_int32(parcel, &number), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_read_bool(parcel, &flag), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_read_string(parcel, &text), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_read_bundle(parcel, &read), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(number, -5);
    EXPECT_TRUE(flag);
    EXPECT_STREQ(text, "text");
    EXPECT_EQ(bundle_get_str(read, "k", &value), BUNDLE_ERROR_NONE);
    EXPECT_STREQ(value, "v");
    EXPECT_NE(rpc_port_parcel_read_int32(parcel, &number), RPC_PORT_ERROR_NONE)
        << "nothing is left";
    std::free(text);
    bundle_free(read);
    EXPECT_EQ(rpc_port_parcel_destroy(parcel), RPC_PORT_ERROR_NONE);
}

std::string ownId() {
    char *id = nullptr;
    EXPECT_EQ(app_get_id(&id), APP_ERROR_NONE);
    const std::unique_ptr<char, void (*)(void *)> owner(id, std::free);
    return id;
}

void iterate() {
    for (int i = 0; i < 50; ++i)
        ecore_main_loop_iterate();
}

TEST(PortPlatformTest, DeliversWholeParcelsInOrderAndTellsWhoCameAndWent) {
    ecore_init();
    const struct {
        const char *what, *script; // of peers::play()
        std::string serverHears;   // after "+ID"
        const char *clientHears;   // after "connected"
    } rows[] = {
        {"parcels in both directions", "12ab.", "1 2 ", "a b "},
        {"a client that goes", "12C.", "1 2 -" + ownId() + " ", ""},
        {"a server that goes", "abS.", "", "a b disconnected "},
        {"an error out of the received event", "1.9.2.", "1 9 -" + ownId() + " ", "disconnected "},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Server server;
        ASSERT_EQ(server.listened, RPC_PORT_ERROR_NONE);
        server.onReceived = [&](rpc_port_h port) {
            const std::string text = takeText(port);
            return server.note(text), text == "9" ? -1 : 0;
        };
        Client client;
        EXPECT_EQ(client.connect("message", ownId().c_str()), RPC_PORT_ERROR_NONE);
        play("." + std::string(row.script), server, client, iterate);
        EXPECT_EQ(server.events, "+" + ownId() + " " + row.serverHears);
        EXPECT_EQ(client.events, std::string("connected ") + row.clientHears);
    }
    ecore_shutdown();
}

TEST(PortPlatformTest, GivesEachConnectionAnInstanceAndPortsOfItsOwn) {
    ecore_init();
    Server server;
    Client first, second;
    EXPECT_EQ(first.connect("message", ownId().c_str()), RPC_PORT_ERROR_NONE);
    iterate();
    const std::string instance = server.instance;
    const rpc_port_h port = server.callbackPort();
    EXPECT_EQ(port, server.callbackPort());
    EXPECT_EQ(second.connect("message", ownId().c_str()), RPC_PORT_ERROR_NONE);
    iterate();
    EXPECT_NE(server.instance, instance);
    EXPECT_EQ(sendText(port, "one") + sendText(server.callbackPort(), "two"), 0);
    first.destroy();
    iterate();
    EXPECT_NE(sendText(port, "late"), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(second.events, "connected two ");
    ecore_shutdown();
}

// --- the application -----------------------------------------------------------------------------

TEST(ApplicationPlatformTest, KnowsItsIdAndItsMetadata) {
    app_info_h info = nullptr;
    ASSERT_EQ(app_info_create(ownId().c_str(), &info), APP_MANAGER_ERROR_NONE);
    std::vector<std::string> seen;
    const auto all = [](const char *key, const char *value, void *data) {
        static_cast<std::vector<std::string> *>(data)->push_back(key + std::string("=") + value);
        return true;
    };
    const auto first = [](const char *, const char *, void *data) {
        ++*static_cast<int *>(data);
        return false;
    };
    int calls = 0;
    EXPECT_EQ(app_info_foreach_metadata(info, all, &seen), APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(app_info_foreach_metadata(info, first, &calls), APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(app_info_destroy(info), APP_MANAGER_ERROR_NONE);
    EXPECT_THAT(seen, testing::IsSupersetOf({"nelvo.platform.first=1", "nelvo.platform.second=2"}));
    EXPECT_EQ(calls, 1);
    EXPECT_NE(app_info_create("no.such.application", &info), APP_MANAGER_ERROR_NONE);
    EXPECT_GE(dlog_print(DLOG_DEBUG, "NELVO-PLATFORM", "%d %s", 1, "text"), 0);
}

} // namespace
