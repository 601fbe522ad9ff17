// SPDX-License-Identifier: Apache-2.0
#include "response.h"

#include <cstring>
#include <stdexcept>

#include "driven_application.h"
#include "log.h"
#include "nelvo_common_data.h"

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
    EXPECT_EQ(testkit::liveHandles(), "0 bundles, 0 parcels, 0 stubs, 0 app infos, 0 timers");
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
