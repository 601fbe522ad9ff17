// SPDX-License-Identifier: Apache-2.0
// The "message" interface: its stub, the service behind it, and its clients among each other.
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>

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

    static bundle *newBundle() { return bundle_create(); }

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

TEST_F(MessageStubTest, KeepsTheValueOfAFieldThatIsMissing) {
    const struct {
        const char *what;
        std::function<void(rpc_port_parcel_h)> write;
        const char *event; // null: the connection is dropped instead
    } rows[] = {
        {"no method", [](auto parcel) { rpc_port_parcel_write_bool(parcel, true); }, nullptr},
        {"SetCB without fields", [](auto parcel) { rpc_port_parcel_write_int32(parcel, 2); },
         "demo.client set 1::0"},
        {"SetCB with the id only",
         [](auto parcel) {
             rpc_port_parcel_write_int32(parcel, 2);
             rpc_port_parcel_write_int32(parcel, 8);
         },
         "demo.client set 8::1"},
        {"Send without a bundle", [](auto parcel) { rpc_port_parcel_write_int32(parcel, 4); },
         "demo.client no bundle"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Client client;
        ASSERT_TRUE(client.connect());
        sendParcel(client, row.write);
        EXPECT_EQ(client.connected(), row.event != nullptr);
        EXPECT_EQ(events.at(1), row.event ? row.event : "demo.client terminated");
        client.disconnect();
        events.clear();
    }
}

TEST_F(MessageStubTest, InvokesACallbackAsLongAsItsConnectionLasts) {
    Client client;
    ASSERT_TRUE(client.connect());
    ASSERT_EQ(testkit::setCb(client, {3, 42, false}), 17);
    const std::unique_ptr<ResponseCB> callback = std::move(latest->kept);
    bundle *content = newBundle();
    bundle_add_str(content, "status_code", "x");
    const Bundle owner(content);
    std::vector<client::Answer> answers;
    client.wire().proxy->events.answered = [&](const auto &answer) { answers.push_back(answer); };
    callback->Invoke("app.id", owner);
    callback->Invoke("app.id", owner);
    device.advance();
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[1].callback.id, 3);
    EXPECT_EQ(answers[1].callback.seq, 42);
    EXPECT_FALSE(answers[1].callback.once);
    EXPECT_EQ(answers[1].sender, "app.id");
    EXPECT_EQ(answers[1].response.field("status_code"), "x");

    client.disconnect();
    EXPECT_THROW(callback->Invoke("app.id", owner), stub::NotConnectedSocketException);
}

TEST_F(MessageStubTest, ServesAClientWithoutCallbackPortButCannotAnswerIt) {
    Client client;
    ASSERT_TRUE(client.connect());
    testkit::failPlatformCall("rpc_port_stub_get_port");
    EXPECT_EQ(client.setCb(), 17);
    EXPECT_EQ(testkit::stopFailing(), 1);
    EXPECT_THAT(stubErrors(device), ElementsAre("OnReceivedCB: Failed to get callback port"));
    EXPECT_THROW(latest->kept->Invoke("app.id", Bundle(newBundle())),
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

TEST_F(MessageServiceTest, AdmitsWhomTheAllowListNames) {
    const struct {
        const char *what;
        std::optional<std::string> content; // empty: no file
        bool admitted;
    } rows[] = {{"no file", std::nullopt, true},
                {"named", "demo.client\n", true},
                {"named without a line end", "other\ndemo.client", true},
                {"named twice", "demo.client\ndemo.client\n", true},
                {"empty", "", false},
                {"only an empty line", "\n", false},
                {"somebody else", "other.client\n", false},
                {"carriage return", "demo.client\r\n", false},
                {"trailing blank", "demo.client \n", false},
                {"a longer line", "demo.client" + std::string(100, 'x') + "\n", false},
                {"a long line before", std::string(100, 'x') + "\ndemo.client\n", true},
                {"a high bit", "demo.clien\xf4\n", false},
                {"other case", "Demo.client\n", false},
                {"commented out", "# demo.client\n", false}};
    Callback callback;
    ASSERT_EQ(callback.registerState(), NELVO_ERROR_NONE);
    callback.then = [](void *handler, bundle *) {
        nelvo_complete_app_state_request(handler, "{}");
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        callback.handlers.clear();
        if (row.content)
            device.setAllowList(*row.content);
        else
            device.removeAllowList();
        Client client;
        ASSERT_TRUE(client.connect());
        device.clearLog();
        EXPECT_EQ(client.setCb(), row.admitted ? 0 : -1);
        client.request("getAppContext");
        EXPECT_EQ(callback.count(), row.admitted ? 1 : 0);
        EXPECT_EQ(client.answers.size(), row.admitted ? 1u : 0u);
        EXPECT_EQ(client.unsetCb(), row.admitted ? 0 : -1);
        EXPECT_EQ(
            device.countLog(DLOG_ERROR, "isPermittedSender", "demo.client is not permitted app id"),
            row.admitted ? 0 : 3);
        EXPECT_EQ(device.countLog(DLOG_ERROR, "Send",
                                  "source app is not allowed to send app sdk requests"),
                  row.admitted ? 0 : 1);
    }
}

TEST_F(MessageServiceTest, KeepsTheListThatTheConnectionReadFirst) {
    const std::string path = "res_path : /usr/share/nelvo/allow_list.dat";
    Client client;
    ASSERT_TRUE(client.connect());
    device.setAllowList("");
    EXPECT_EQ(client.setCb(), -1);
    device.setAllowList("demo.client\n");
    EXPECT_EQ(client.setCb(), 0) << "an empty list is not kept";
    device.setAllowList("other\n");
    EXPECT_EQ(client.setCb(), 0);
    EXPECT_EQ(device.countLog(DLOG_INFO, "isPermittedSender", path), 2);

    Client later;
    ASSERT_TRUE(later.connect());
    EXPECT_EQ(later.setCb(), -1);
}

TEST_F(MessageServiceTest, AdmitsNobodyByTheFirstHalfOfALine) {
    Client client;
    ASSERT_TRUE(client.connect());
    failsDisk = true;
    EXPECT_EQ(client.setCb(), -1);
    failsDisk = false;
    device.setAllowList("demo.client\n");
    EXPECT_EQ(client.setCb(), -1) << "what was read before is the list";
}

// What one client does must not reach another one.
TEST(IsolationTest, LeavesEachClientWhatIsItsOwn) {
    testkit::Simulation device;
    ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
    Callback callback;
    ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE);
    Client a("client.a"), b("client.b"), again("client.a");
    const struct {
        const char *what;
        std::function<void()> act;
        std::size_t answersA, answersB, answersAgain; // to a request of each afterwards
    } rows[] = {
        {"nothing", [] {}, 1, 1, 0},
        {"UnsetCB", [&] { EXPECT_EQ(b.unsetCb(), 0); }, 1, 0, 0},
        {"UnsetCB twice", [&] { EXPECT_EQ(b.unsetCb() + b.unsetCb(), 0); }, 1, 0, 0},
        {"the end of a connection", [&] { b.disconnect(); }, 1, 0, 0},
        {"another connection of the same client", [&] { EXPECT_TRUE(again.join()); }, 0, 1, 2},
        {"UnsetCB of a client that is not admitted any more",
         [&] {
             b.request("play", 1);
             device.setAllowList("client.a\n");
             EXPECT_EQ(b.unsetCb(), -1);
             nelvo_complete_action_execution(callback.last(),
                                             "to b, whose callback is still there");
             device.removeAllowList();
         },
         1, 1, 0},
        {"a refused state request",
         [&] {
             a.request("play", 1);
             a.answers.clear();
             Client stranger("stranger");
             device.setAllowList("client.a\nclient.b\n");
             ASSERT_TRUE(stranger.connect());
             stranger.request("getAppContext", 2);
             EXPECT_TRUE(a.answers.empty()) << "the pending request is another's";
             EXPECT_EQ(nelvo_complete_action_execution(callback.last(), "x"), NELVO_ERROR_NONE);
         },
         2, 1, 0},
        {"a state request without a callback",
         [&] {
             a.request("play", 1);
             b.request("getAppContext", 2);
             device.advance();
             EXPECT_TRUE(a.answers.empty());
             EXPECT_EQ(b.answers.size(), 1u);
         },
         1, 2, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        device.removeAllowList();
        again.disconnect();
        ASSERT_TRUE(a.join());
        ASSERT_TRUE(b.join());
        for (Client *client : {&a, &b, &again})
            client->answers.clear();
        row.act();
        for (Client *client : {&a, &b}) {
            if (!client->connected())
                continue;
            client->request("play", 3);
            nelvo_complete_action_execution(callback.last(), "done");
            device.advance();
        }
        if (again.connected()) {
            again.request("play", 4);
            nelvo_complete_action_execution(callback.last(), "done");
            device.advance();
        }
        EXPECT_EQ(a.answers.size(), row.answersA);
        EXPECT_EQ(b.answers.size(), row.answersB);
        EXPECT_EQ(again.answers.size(), row.answersAgain);
    }
    device.takeWarnings(); // b completes nothing once it is not admitted
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
