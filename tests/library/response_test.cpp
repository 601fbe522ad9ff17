// SPDX-License-Identifier: Apache-2.0
#include "response.h"

#include <cstring>
#include <stdexcept>

#include "action_request_impl.h"
#include "driven_application.h"
#include "log.h"
#include "nelvo_common_data.h"
#include "state_request_impl.h"

namespace nelvo {
namespace {

TEST(ResponseTest, AddsItsEntriesInTheirOrder) {
    NelvoCommonData::getInstance()->_requestId = 0x0102030405060708;
    const struct {
        bundle *response;
        std::string keys;
    } rows[] = {
        {createSuccessResponse("result", "x"), "status_code result requestId "},
        {createSuccessResponse("appContext", "x"), "status_code appContext requestId "},
        {createFailureResponse("result", "x"), "result status_code status_msg requestId "},
        {createFailureResponse("appContext", "x"), "appContext status_code status_msg requestId "}};
    for (const auto &row : rows) {
        std::string keys;
        bundle_foreach(
            row.response,
            [](const char *key, const int, const bundle_keyval_t *, void *data) {
                *static_cast<std::string *>(data) += std::string(key) + " ";
            },
            &keys);
        EXPECT_EQ(keys, row.keys);
        void *bytes = nullptr;
        std::size_t size = 0;
        ASSERT_EQ(bundle_get_byte(row.response, "requestId", &bytes, &size), BUNDLE_ERROR_NONE);
        ASSERT_EQ(size, 8u);
        EXPECT_EQ(std::memcmp(bytes, &NelvoCommonData::getInstance()->_requestId, 8), 0);
        bundle_free(row.response);
    }
}

TEST(ResponseTest, GoesToNobodyBeforeTheFirstRequest) {
    testkit::Simulation device;
    EXPECT_EQ(sendResponse(createSuccessResponse("result", "x")), NELVO_ERROR_OPERATION_FAILED);
    EXPECT_EQ(device.countLog(DLOG_ERROR, "sendResponse", "Nelvo Client is not connected"), 1);
    EXPECT_EQ(testkit::liveHandles(), testkit::NO_HANDLES);
}

TEST(NelvoCommonDataTest, BeginsAnewWithEachStart) {
    testkit::Simulation device;
    NelvoCommonData &data = *NelvoCommonData::getInstance();
    EXPECT_EQ(data._currentActionHandler, 0);
    EXPECT_EQ(data._requestId, 0u);
    for (int round = 0; round < 2; ++round) {
        nelvo_initialize();
        EXPECT_EQ(data._currentActionHandler, 1);
        EXPECT_EQ(data._requestId, ~0ull);
        data._requestIdMap[2] = {"old", 1};
        EXPECT_EQ(data.takeActionHandler("new"), 2);
        EXPECT_EQ(data._requestIdMap[2].first, "new");
        data._requestId = 5;
        nelvo_deinitialize();
        EXPECT_EQ(data._currentActionHandler, 0);
        EXPECT_EQ(data._requestId, ~0ull);
        data._requestId = 5;
    }
    EXPECT_EQ(data.initialize(), 0);
    EXPECT_EQ(data.deinitialize(), 0);
    EXPECT_EQ(ActionRequestImpl::getInstance()->deinitialize(), NELVO_ERROR_NONE);
    EXPECT_EQ(StateRequestImpl::getInstance()->initialize(), NELVO_ERROR_NONE);
    EXPECT_EQ(StateRequestImpl::getInstance()->deinitialize(), NELVO_ERROR_NONE);
}

TEST(LogTest, GivesTheCodeOfEachException) {
    testkit::Simulation device;
    const auto thrown = [](auto exception) {
        try {
            throw exception;
        } catch (...) {
            return logException("f");
        }
    };
    EXPECT_EQ(thrown(std::bad_alloc()), NELVO_ERROR_OUT_OF_MEMORY);
    EXPECT_EQ(thrown(std::runtime_error("why")), NELVO_ERROR_OPERATION_FAILED);
    EXPECT_EQ(thrown(1), NELVO_ERROR_OPERATION_FAILED);
    EXPECT_THAT(device.logTexts(),
                testing::ElementsAre("E f: out of memory", "E f: unexpected exception: why",
                                     "E f: unexpected exception"));
}

} // namespace
} // namespace nelvo
