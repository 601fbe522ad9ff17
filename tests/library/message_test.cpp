// SPDX-License-Identifier: Apache-2.0
// The "message" interface: its stub, its callbacks, the allow list, and clients side by side.
#include "driven_application.h"

#include <cstdarg>
#include <cstring>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "allocation_faults.h"
#include "client_wire.h"
#include "message_service.h"

namespace nelvo {
namespace {

namespace stub = rpc_port::message::stub;
using ServiceBase = stub::message::ServiceBase;

using Note = std::function<void(const std::string &)>;

// A service that says when it ends.
struct Service final : messageService {
    Service(std::string sender, std::string instance, Note to)
        : messageService(std::move(sender), std::move(instance)), note(std::move(to)) {}
    ~Service() override { note(GetSender() + " destroyed"); }
    void OnTerminate() override { note(GetSender() + " terminated"); }

    Note note;
};

struct Factory final : ServiceBase::Factory {
    explicit Factory(Note to) : note(std::move(to)) {}
    std::unique_ptr<ServiceBase> CreateService(std::string sender, std::string instance) override {
        if (sender == "refused")
            return nullptr;
        return std::make_unique<Service>(std::move(sender), std::move(instance), note);
    }

    Note note;
};

TEST(MessageStubTest, EndsEachServiceOnceAndInTheOrderOfTheConnections) {
    testkit::Simulation device;
    Client a("a"), b("b");
    std::vector<std::string> events;
    auto message = std::make_unique<stub::message>();
    message->Listen(std::make_shared<Factory>([&](const std::string &event) {
        events.push_back(event);
        if (event != "b terminated")
            return;
        a.disconnect(); // while the stub ends its services; the stub is not destroyed yet
        device.advance();
        EXPECT_EQ(testkit::liveHandles(), "0 bundles, 0 parcels, 1 stubs, 0 app infos, 0 timers");
    }));
    ASSERT_TRUE(b.connect());
    ASSERT_TRUE(a.connect());
    message.reset();
    EXPECT_THAT(events, ElementsAre("b terminated", "a terminated", "b destroyed", "a destroyed"));
}

TEST(MessageStubTest, DropsAClientWithoutServiceOrOfAnUnknownParcel) {
    testkit::Simulation device;
    stub::message message;
    message.Listen(std::make_shared<Factory>([](const std::string &) {}));
    Client refused("refused"), served("served"); // in the order of their instances
    for (int round = 0; round < 2; ++round) {
        device.clearLog();
        ASSERT_TRUE(refused.connect());
        testkit::hooks().received = [](int result) { EXPECT_EQ(result, -1); };
        EXPECT_EQ(refused.setCb(), -100);
        testkit::hooks() = {};
        EXPECT_FALSE(refused.connected());
        EXPECT_THAT(
            device.transcript(),
            ElementsAre("E OnConnectedCB: Failed to create service for refused, connection ignored",
                        testing::StartsWith("E OnReceivedCB: Failed to find $$ context(refused")));
        EXPECT_THAT(device.log().back().text, testing::StartsWith("message.cpp: "));
        ASSERT_TRUE(served.connect());
    }
    testkit::hooks().received = [](int result) { EXPECT_EQ(result, -1); };
    testkit::sendParcel(served, [](auto parcel) { rpc_port_parcel_write_int32(parcel, 5); });
    testkit::hooks() = {};
    EXPECT_FALSE(served.connected());
}

class ResponseCallbackTest : public DrivenApplication {};

TEST_F(ResponseCallbackTest, SendsTheFieldsThatTheClientRegistered) {
    const stub::message::CallbackBase latest(1, false);
    const int number = latest.GetSeqId();
    EXPECT_EQ(latest.GetTag(), "1::" + std::to_string(number));
    const struct {
        std::vector<int> sent;
        int id, seq;
    } rows[] = {{{}, 1, number + 1}, {{8}, 8, number + 2}, {{3, 42}, 3, 42}};
    ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE);
    client::CallbackFields received;
    client.wire().proxy->events.answered = [&](const auto &answer) { received = answer.callback; };
    for (const auto &row : rows) {
        testkit::sendParcel(client, [&](rpc_port_parcel_h parcel) {
            rpc_port_parcel_write_int32(parcel, 2);
            for (const int field : row.sent)
                rpc_port_parcel_write_int32(parcel, field);
        });
        client.request("play");
        EXPECT_EQ(nelvo_complete_action_execution(callback.last(), "done"), NELVO_ERROR_NONE);
        device.advance();
        EXPECT_EQ(received.id, row.id);
        EXPECT_EQ(received.seq, row.seq);
        EXPECT_FALSE(received.once);
    }
}

TEST_F(ResponseCallbackTest, IsUsedUpOnlyByAnAnswerAndNotMissedWhenTheClientHasGone) {
    ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE);
    testkit::sendParcel(client, [](rpc_port_parcel_h parcel) {
        for (const int number : {2, 1, 7})
            rpc_port_parcel_write_int32(parcel, number);
        rpc_port_parcel_write_bool(parcel, true); // for one answer
    });
    const auto complete = [&] { return nelvo_complete_action_execution(callback.last(), "done"); };
    client.request("play");
    testkit::failPlatformCall("rpc_port_parcel_write_bundle", RPC_PORT_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(complete(), NELVO_ERROR_OPERATION_FAILED);
    testkit::stopFailing();
    for (const int wanted : {NELVO_ERROR_NONE, NELVO_ERROR_OPERATION_FAILED}) {
        client.request("play");
        EXPECT_EQ(complete(), wanted);
    }
    EXPECT_THAT(device.logTexts(DLOG_ERROR).back(), testing::EndsWith("InvalidCallbackException"));
    client.request("play");
    client.disconnect();
    EXPECT_EQ(complete(), NELVO_ERROR_OPERATION_FAILED);
    EXPECT_THAT(device.logTexts(DLOG_ERROR).back(),
                testing::EndsWith("NotConnectedSocketException"));
}

TEST_F(ResponseCallbackTest, RefusesAnAnswerThatIsTooLargeToSend) {
    ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE);
    for (const std::size_t size : {std::size_t{17} << 20, std::size_t{15} << 20}) {
        client.request("play");
        const bool isSent =
            nelvo_complete_action_execution(callback.last(), std::string(size, 'x').c_str()) ==
            NELVO_ERROR_NONE;
        device.advance();
        EXPECT_EQ(answerCount(), isSent ? 1 : 0);
        EXPECT_EQ(isSent, size < std::size_t{16} << 20);
    }
}

// What is opened next in place of the allow list, and where reading begins; -1: nothing can be read, since
// the descriptor is closed.
const char *standIn = nullptr;
off_t standInPosition = 0;

// A line and half of the next one, behind which a read error comes: the memory of this process, and
// behind it an address without memory.
void standInFailing() {
    constexpr char TEXT[] = "other.client\ndemo.client";
    constexpr std::size_t SIZE = sizeof TEXT - 1;
    const auto page = static_cast<std::size_t>(getpagesize());
    void *const pages =
        mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char *const end = static_cast<char *>(pages) + page;
    std::memcpy(end - SIZE, TEXT, SIZE);
    munmap(end, page);
    standIn = "/proc/self/mem";
    standInPosition = reinterpret_cast<off_t>(end - SIZE);
}

class AllowListTest : public DrivenApplication {};

TEST_F(AllowListTest, AdmitsNobodyByHalfALineBeforeAReadError) {
    ASSERT_TRUE(client.connect());
    standInFailing();
    EXPECT_EQ(client.setCb(), -1);
    device.setAllowList("demo.client\n");
    EXPECT_EQ(client.setCb(), -1) << "the lines before the error are the list";
}

TEST_F(AllowListTest, HasNoLinesIfItIsAPipeAndDoesNotWaitForAWriter) {
    unlink("pipe"); // of an aborted run
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    const auto expectNobody = [&](const char *path) {
        standIn = path;
        ASSERT_TRUE(client.connect());
        EXPECT_EQ(client.setCb(), -1) << path;
    };
    expectNobody("/"); // a directory can be opened
    expectNobody("pipe");
    const int writer = open("pipe", O_RDWR | O_CLOEXEC);
    EXPECT_EQ(write(writer, "demo.client\n", 12), 12);
    expectNobody("pipe");
    close(writer);
    unlink("pipe");
    standIn = "/proc/self/status";
    standInPosition = -1;
    ASSERT_TRUE(client.connect());
    EXPECT_EQ(client.setCb(), 0) << "as without a list";
}

TEST_F(AllowListTest, IsNotKeptInPartWithoutMemory) {
    const std::string longest(127, 'x'); // that a client may have
    device.setAllowList("first.client\n" + longest + "\ndemo.client\n");
    EXPECT_TRUE(Client(longest).join());
    for (int nth = 1, failed = 1; failed > 0; ++nth) {
        ASSERT_TRUE(client.connect());
        testkit::failAllocation(nth);
        client.setCb();
        failed = testkit::stopFailingAllocations();
        EXPECT_TRUE(client.connected() ? client.setCb() == 0 : client.join()) << nth;
    }
}

class IsolationTest : public DrivenApplication {};

TEST_F(IsolationTest, SendsAnswersToTheLatestConnectionOfTheSameClient) {
    callback.then = [](void *handler, bundle *) { nelvo_complete_action_execution(handler, "x"); };
    ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE);
    Client again, other("other.client");
    ASSERT_TRUE(again.join() && other.join());
    for (Client *each : {&client, &again, &other})
        each->request("play");
    EXPECT_EQ(answerCount(), 0);
    EXPECT_EQ(again.answers.size(), 2u);
    EXPECT_EQ(other.answers.size(), 1u);
}

} // namespace
} // namespace nelvo

// Stands before the test kit's.
extern "C" __attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
    using Open = int (*)(const char *, int, ...);
    static const auto next = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "open"));
    if (nelvo::standIn && std::strstr(path, "allow_list")) {
        const int fd = next(std::exchange(nelvo::standIn, nullptr), flags);
        if (lseek(fd, std::exchange(nelvo::standInPosition, 0), SEEK_SET) < 0 && errno == EINVAL)
            close(fd);
        return fd;
    }
    std::va_list values;
    va_start(values, flags);
    const auto mode = va_arg(values, unsigned);
    va_end(values);
    return next(path, flags, mode);
}
