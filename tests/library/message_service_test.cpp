// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstring>

#include <dlfcn.h>

#include "driven_application.h"

namespace nelvo {
namespace {

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
        const char *content; // null: no file
        bool admitted;
    } rows[] = {{"no file", nullptr, true},
                {"named", "demo.client\n", true},
                {"named without a line end", "other\ndemo.client", true},
                {"named twice", "demo.client\ndemo.client\n", true},
                {"empty", "", false},
                {"only an empty line", "\n", false},
                {"somebody else", "other.client\n", false},
                {"carriage return", "demo.client\r\n", false},
                {"trailing blank", "demo.client \n", false},
                {"leading blank", " demo.client\n", false},
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
            device.setAllowList(row.content);
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

TEST_F(MessageServiceTest, KeepsOneResponseCallbackPerSender) {
    Client first;
    Client second; // the same sender on a connection of its own
    EXPECT_TRUE(first.join());
    EXPECT_EQ(first.unsetCb(), 0);
    EXPECT_EQ(first.unsetCb(), 0) << "nothing to remove is no error";
    EXPECT_TRUE(first.join());
    EXPECT_TRUE(second.join());
    first.request("getAppContext", 3);
    EXPECT_THAT(first.answers, IsEmpty());
    ASSERT_EQ(second.answers.size(), 1u);
    EXPECT_EQ(second.answers[0].requestId, 3u);

    second.disconnect();
    device.clearLog();
    first.request("getAppContext", 4);
    EXPECT_EQ(
        device.countLog(DLOG_ERROR, "sendResponse", "response error: NotConnectedSocketException"),
        1)
        << "the callback of a client that has gone stays registered";
}

} // namespace
} // namespace nelvo

// Stands before the test kit's.
extern "C" __attribute__((visibility("default"))) FILE *fopen(const char *path, const char *mode) {
    using Open = FILE *(*)(const char *, const char *);
    static const auto next = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "fopen"));
    return nelvo::failsDisk ? nelvo::openFailing() : next(path, mode);
}
