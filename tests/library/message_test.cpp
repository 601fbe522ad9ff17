// SPDX-License-Identifier: Apache-2.0
// The "message" interface: its stub, the service behind it, and its clients among each other.
#include <cstdio>
#include <cstring>
#include <functional>

#include <dlfcn.h>

#include "driven_application.h"

#include "client_wire.h"
#include "message/message.h"

namespace nelvo {
namespace {

namespace stub = rpc_port::message::stub;
using rpc_port::message::Bundle;
using ResponseCB = stub::message::ResponseCB;
using ServiceBase = stub::message::ServiceBase;

std::vector<std::string> stubErrors(const testkit::Simulation &device) {
    std::vector<std::string> errors;
    for (const auto &line : device.log())
        if (line.tag == "RPC_PORT_STUB") {
            EXPECT_EQ(line.priority, DLOG_ERROR);
            EXPECT_EQ(line.text.rfind("message.cpp: ", 0), 0u) << line.text;
            errors.push_back(line.function + ": " + line.message);
        }
    return errors;
}

// A service that writes down what happens to it.
struct Recorder : ServiceBase {
    Recorder(std::string sender, std::string instance, std::vector<std::string> &events)
        : ServiceBase(std::move(sender), std::move(instance)), _events(events) {}
    ~Recorder() override { note("destroyed"); }

    void OnCreate() override { note("created"); }
    void OnTerminate() override {
        note("terminated");
        onTerminate();
    }
    int SetCB(std::unique_ptr<ResponseCB> callback) override {
        note("set " + callback->GetTag());
        kept = std::move(callback);
        return 17;
    }
    int UnsetCB() override {
        note("unset");
        return -5;
    }
    void Send(Bundle request) override { note(request.GetHandle() ? "bundle" : "no bundle"); }
    void note(const std::string &what) { _events.push_back(GetSender() + " " + what); }

    std::unique_ptr<ResponseCB> kept;
    std::function<void()> onTerminate = [] {};

private:
    std::vector<std::string> &_events;
};

class MessageStubTest : public testing::Test {
protected:
    struct RecorderFactory final : ServiceBase::Factory {
        explicit RecorderFactory(MessageStubTest &owner) : test(owner) {}
        std::unique_ptr<ServiceBase> CreateService(std::string sender,
                                                   std::string instance) override {
            if (sender == "client.unlucky")
                throw std::bad_alloc();
            if (test.refuse)
                return nullptr;
            auto service = std::make_unique<Recorder>(sender, instance, test.events);
            test.latest = service.get();
            return service;
        }
        MessageStubTest &test;
    };

    void SetUp() override {
        message = std::make_unique<stub::message>();
        message->Listen(std::make_shared<RecorderFactory>(*this));
    }

    testkit::Simulation device;
    std::vector<std::string> events;
    Recorder *latest = nullptr;
    bool refuse = false;
    std::unique_ptr<stub::message> message;
};

TEST_F(MessageStubTest, RoutesEachConnectionToItsOwnService) {
    Client a("client.a"), b("client.b");
    ASSERT_TRUE(a.connect());
    ASSERT_TRUE(b.connect());
    EXPECT_EQ(testkit::setCb(a, {1, 42, false}), 17);
    EXPECT_EQ(b.unsetCb(), -5);
    a.disconnect();
    EXPECT_EQ(b.unsetCb(), -5);
    latest->onTerminate = [&] { // b leaves meanwhile, and the stub is still there
        b.disconnect();
        device.advance();
        EXPECT_EQ(testkit::liveHandles(), "0 bundles, 0 parcels, 1 stubs, 0 app infos, 0 timers");
    };
    message.reset();
    EXPECT_THAT(events, ElementsAre("client.a created", "client.b created", "client.a set 1::42",
                                    "client.b unset", "client.a terminated", "client.a destroyed",
                                    "client.b unset", "client.b terminated", "client.b destroyed"));
}

TEST_F(MessageStubTest, DropsAClientWhoseParcelIsUnknown) {
    for (const int method : {0, 1, 5, -1, 1 << 30}) {
        SCOPED_TRACE(method);
        Client client;
        ASSERT_TRUE(client.connect());
        device.clearLog();
        int returned = 0;
        testkit::hooks().received = [&](int result) { returned = result; };
        sendParcel(client, [&](auto parcel) { rpc_port_parcel_write_int32(parcel, method); });
        testkit::hooks() = {};
        EXPECT_EQ(returned, -1);
        EXPECT_FALSE(client.connected());
        EXPECT_THAT(stubErrors(device),
                    ElementsAre("OnReceivedCB: Unknown command(" + std::to_string(method) + ")"));
    }
}

TEST_F(MessageStubTest, ServesAClientWithoutCallbackPortButCannotAnswerIt) {
    Client client;
    ASSERT_TRUE(client.connect());
    testkit::failPlatformCall("rpc_port_stub_get_port");
    EXPECT_EQ(client.setCb(), 17);
    EXPECT_EQ(testkit::stopFailing(), 1);
    EXPECT_THAT(stubErrors(device), ElementsAre("OnReceivedCB: Failed to get callback port"));
    EXPECT_THROW(latest->kept->Invoke("app.id", Bundle(bundle_create())),
                 stub::NotConnectedSocketException);
}

TEST_F(MessageStubTest, IgnoresAConnectionThatTheFactoryRefuses) {
    Client client, unlucky("client.unlucky"), later("later"); // in the order of their instances
    refuse = true;
    ASSERT_TRUE(client.connect());
    refuse = false;
    ASSERT_TRUE(unlucky.connect());
    ASSERT_TRUE(later.connect());
    EXPECT_THAT(stubErrors(device),
                ElementsAre("OnConnectedCB: Failed to create service for "
                            "demo.client, connection ignored",
                            "OnConnectedCB: Failed to create service for "
                            "client.unlucky, connection ignored: std::bad_alloc"));
    EXPECT_EQ(later.setCb(), 17);
    device.clearLog();
    int returned = 0;
    testkit::hooks().received = [&](int result) { returned = result; };
    EXPECT_LT(client.setCb(), -1);
    testkit::hooks() = {};
    EXPECT_EQ(returned, -1);
    EXPECT_FALSE(client.connected());
    ASSERT_EQ(stubErrors(device).size(), 1u);
    EXPECT_THAT(stubErrors(device)[0],
                testing::StartsWith("OnReceivedCB: Failed to find $$ context("));
    Client last("the.last");
    refuse = true;
    ASSERT_TRUE(last.connect());
    EXPECT_LT(last.setCb(), -1);
}

TEST(CallbackBaseTest, NumbersCallbacksFromZero) {
    testkit::Simulation device;
    const ResponseCB first(nullptr, {});
    const ResponseCB second(nullptr, {});
    EXPECT_EQ(first.GetTag(), "1::0");
    EXPECT_EQ(second.GetTag(), "1::1");
    EXPECT_FALSE(second.IsOnce());
}

bool failsDisk = false;

// Holds a line and, where a disk fails, half of the next one, which is a client's id.
FILE *openFailing() {
    cookie_io_functions_t calls{};
    calls.read = [](void *, char *buffer, std::size_t) -> ssize_t {
        static bool isRead = false;
        isRead = !isRead;
        return isRead ? static_cast<ssize_t>(stpcpy(buffer, "other.client\ndemo.client") - buffer)
                      : -1;
    };
    return fopencookie(nullptr, "r", calls);
}

class MessageServiceTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE); }
    void TearDown() override { nelvo_deinitialize(); }

    testkit::Simulation device;
};

TEST_F(MessageServiceTest, AdmitsNobodyByTheFirstHalfOfALine) {
    Client client;
    ASSERT_TRUE(client.connect());
    failsDisk = true;
    EXPECT_EQ(client.setCb(), -1);
    failsDisk = false;
    device.setAllowList("demo.client\n");
    EXPECT_EQ(client.setCb(), -1) << "what was read before is the list";
}

// A client that connects twice is answered on the connection that registered last.
TEST(IsolationTest, GivesTheAnswersOfAnIdToItsLatestCallback) {
    testkit::Simulation device;
    ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
    Callback callback;
    callback.then = [](void *handler, bundle *) { nelvo_complete_action_execution(handler, "x"); };
    ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE);
    Client first("client.a"), again("client.a"), other("client.b");
    ASSERT_TRUE(first.join() && again.join() && other.join());
    for (Client *client : {&first, &again, &other})
        client->request("play");
    EXPECT_EQ(first.answers.size(), 0u);
    EXPECT_EQ(again.answers.size(), 2u);
    EXPECT_EQ(other.answers.size(), 1u);
    nelvo_deinitialize();
}

} // namespace
} // namespace nelvo

// Stands before the test kit's.
extern "C" __attribute__((visibility("default"))) FILE *fopen(const char *path, const char *mode) {
    using Open = FILE *(*)(const char *, const char *);
    static const auto next = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "fopen"));
    return nelvo::failsDisk ? nelvo::openFailing() : next(path, mode);
}
