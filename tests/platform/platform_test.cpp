// SPDX-License-Identifier: Apache-2.0
// What the library relies on, asked of any platform through its public headers alone. Where a case
// fails on a new platform, the library will not work there as documented.
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

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
using testing::Pair;

constexpr const char *OWN_ID = "nelvo.platform"; // from the manifest beside the program

// --- bundles and parcels -------------------------------------------------------------------------

TEST(BundlePlatformTest, SaysWhyItRefuses) {
    const std::unique_ptr<bundle, decltype(&bundle_free)> owner(bundle_create(), bundle_free);
    bundle *const b = owner.get();
    char *text = nullptr;
    void *bytes = nullptr;
    std::size_t size = 0;
    EXPECT_EQ(bundle_add_str(b, "text", "a"), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_add_str(b, "text", "b"), BUNDLE_ERROR_KEY_EXISTS);
    EXPECT_EQ(bundle_add_byte(b, "bytes", "c", 1), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_get_str(b, "absent", &text), BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    EXPECT_EQ(bundle_get_byte(b, "absent", &bytes, &size), BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    EXPECT_EQ(bundle_get_str(b, "bytes", &text), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_get_byte(b, "text", &bytes, &size), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_free(nullptr), BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(bundle_dup(nullptr), nullptr);
}

using Entries = std::map<std::string, std::pair<int, std::string>>; // type and value by key

void note(const char *key, const int type, const bundle_keyval_t *kv, void *entries) {
    auto *const entry = const_cast<bundle_keyval_t *>(kv);
    void *value = nullptr;
    std::size_t size = 0;
    EXPECT_EQ(bundle_keyval_get_type(entry), type);
    if (bundle_keyval_type_is_array(entry) == 0) {
        EXPECT_EQ(bundle_keyval_get_basic_val(entry, &value, &size), BUNDLE_ERROR_NONE);
    }
    (*static_cast<Entries *>(entries))[key] = {type, {static_cast<char *>(value), size}};
}

TEST(ParcelPlatformTest, GivesCopiesOfValuesBackInTheirOrder) {
    bundle *const b = bundle_create();
    std::string key = "text", value = "abc", bytes("\0\1", 2);
    const char *array[] = {"x", "y"};
    EXPECT_EQ(bundle_add_str(b, key.c_str(), value.c_str()), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_add_byte(b, "bytes", bytes.data(), 2), BUNDLE_ERROR_NONE);
    EXPECT_EQ(bundle_add_str_array(b, "array", array, 2), BUNDLE_ERROR_NONE);
    key[0] = value[0] = bytes[0] = '!';
    bundle *const copy = bundle_dup(b);
    EXPECT_EQ(bundle_free(b), BUNDLE_ERROR_NONE);

    rpc_port_parcel_h parcel = nullptr;
    ASSERT_EQ(rpc_port_parcel_create(&parcel), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_write_int32(parcel, -5), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_write_bool(parcel, true), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_write_string(parcel, "text"), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_write_bundle(parcel, copy), RPC_PORT_ERROR_NONE);
    bundle_free(copy);
    int number = 0;
    bool flag = false;
    char *text = nullptr;
    bundle *read = nullptr;
    EXPECT_EQ(rpc_port_parcel_read_int32(parcel, &number), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_read_bool(parcel, &flag), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_read_string(parcel, &text), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(rpc_port_parcel_read_bundle(parcel, &read), RPC_PORT_ERROR_NONE);
    EXPECT_NE(rpc_port_parcel_read_int32(parcel, &number), RPC_PORT_ERROR_NONE) << "nothing left";
    EXPECT_EQ(rpc_port_parcel_destroy(parcel), RPC_PORT_ERROR_NONE);
    Entries entries;
    bundle_foreach(read, note, &entries);
    EXPECT_EQ(number, -5);
    EXPECT_TRUE(flag);
    EXPECT_STREQ(text, "text");
    EXPECT_THAT(entries,
                testing::ElementsAre(Pair("array", Pair(BUNDLE_TYPE_STR_ARRAY, "")),
                                     Pair("bytes", Pair(BUNDLE_TYPE_BYTE, std::string("\0\1", 2))),
                                     Pair("text", Pair(BUNDLE_TYPE_STR, std::string("abc", 4)))));
    std::free(text);
    bundle_free(read);
}

// --- timers --------------------------------------------------------------------------------------

using Work = std::function<bool()>; // returns whether the timer is renewed

Eina_Bool callWork(void *work) {
    return (*static_cast<Work *>(work))() ? ECORE_CALLBACK_RENEW : ECORE_CALLBACK_CANCEL;
}

TEST(TimerPlatformTest, FiresInOrderUntilItIsCancelledOrDeleted) {
    ecore_init();
    std::string order;
    Work quit = [] { return ecore_main_loop_quit(), false; };
    const auto note = [&](char name) { // how often it has been noted
        order += name;
        if (order.size() == 4) {
            EXPECT_NE(ecore_timer_add(0, callWork, &quit), nullptr);
        }
        return std::count(order.begin(), order.end(), name);
    };
    Work thrice = [&] { return note('a') < 3; };
    Work once = [&] { return note('b') < 1; };
    Work never = [&] { return note('n') < 1; };
    Ecore_Timer *const deleted = ecore_timer_add(0.001, callWork, &never);
    EXPECT_NE(ecore_timer_add(0.002, callWork, &thrice), nullptr);
    EXPECT_NE(ecore_timer_add(0.003, callWork, &once), nullptr);
    EXPECT_EQ(ecore_timer_del(deleted), &never);
    ecore_main_loop_begin();
    EXPECT_THAT(order, testing::AnyOf("abaa", "aaba", "aaab")) << "the machine may be busy";
    ecore_shutdown();
}

// --- ports ---------------------------------------------------------------------------------------

struct PortPlatformTest : testing::Test {
    PortPlatformTest() { ecore_init(); }
    ~PortPlatformTest() override { ecore_shutdown(); }

    static std::string news(Peer &peer) {
        for (int i = 0; i < 50; ++i)
            ecore_main_loop_iterate();
        return std::exchange(peer.events, "");
    }
    static std::unique_ptr<Client> connected() {
        auto client = std::make_unique<Client>();
        EXPECT_EQ(rpc_port_proxy_connect(client->handle, OWN_ID, "message"), RPC_PORT_ERROR_NONE);
        EXPECT_EQ(news(*client), "connected ");
        return client;
    }
};

TEST_F(PortPlatformTest, DeliversWholeParcelsInOrderAndTellsWhoCameAndWent) {
    Server server;
    ASSERT_EQ(server.listened, RPC_PORT_ERROR_NONE);
    auto client = connected();
    EXPECT_EQ(news(server), "+nelvo.platform ");
    const rpc_port_h port = server.callbackPort();
    EXPECT_EQ(server.callbackPort(), port) << "the port is the stub's";
    EXPECT_EQ(sendText(client->port(), "1") + sendText(client->port(), "2"), 0);
    EXPECT_EQ(sendText(port, "a") + sendText(port, "b"), 0);
    EXPECT_EQ(news(server), "1 2 ");
    EXPECT_EQ(news(*client), "a b ");
    client.reset();
    EXPECT_EQ(news(server), "-nelvo.platform ");
    EXPECT_NE(sendText(port, "late"), RPC_PORT_ERROR_NONE);
}

TEST_F(PortPlatformTest, GivesEachConnectionAnInstanceAndAnEndOfItsOwn) {
    auto server = std::make_unique<Server>();
    auto first = connected();
    const std::string instance = server->instance;
    auto second = connected();
    EXPECT_NE(server->instance, instance);
    EXPECT_EQ(sendText(server->callbackPort(), "to the second"), 0);
    EXPECT_EQ(news(*first), "");
    EXPECT_EQ(news(*second), "to the second ");
    server->onReceived = [](rpc_port_h port) { return takeText(port) == "bad" ? -1 : 0; };
    EXPECT_EQ(sendText(first->port(), "bad") + sendText(second->port(), "good"), 0);
    EXPECT_EQ(news(*first), "disconnected ");
    EXPECT_EQ(news(*second), "");
    server.reset();
    EXPECT_EQ(news(*second), "disconnected ");
    EXPECT_EQ(Server().listened, RPC_PORT_ERROR_NONE) << "the port is free again";
}

// --- the application -----------------------------------------------------------------------------

TEST(ApplicationPlatformTest, KnowsItsIdAndItsMetadata) {
    char *id = nullptr;
    ASSERT_EQ(app_get_id(&id), APP_ERROR_NONE);
    EXPECT_STREQ(id, OWN_ID);
    std::free(id);
    app_info_h info = nullptr;
    EXPECT_NE(app_info_create("no.such.application", &info), APP_MANAGER_ERROR_NONE);
    ASSERT_EQ(app_info_create(OWN_ID, &info), APP_MANAGER_ERROR_NONE);
    using Metadata = std::map<std::string, std::string>;
    const auto noteOne = [](const char *key, const char *value, void *seen) {
        return static_cast<Metadata *>(seen)->emplace(key, value).second;
    };
    Metadata seen;
    EXPECT_EQ(app_info_foreach_metadata(info, noteOne, &seen), APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(app_info_destroy(info), APP_MANAGER_ERROR_NONE);
    EXPECT_THAT(seen, testing::IsSupersetOf(
                          {Pair("nelvo.platform.first", "1"), Pair("nelvo.platform.second", "2")}));
    EXPECT_GE(dlog_print(DLOG_DEBUG, "NELVO-PLATFORM", "%d %s", 1, "text"), 0);
}

} // namespace
