// SPDX-License-Identifier: Apache-2.0
#include "response.h"

#include <cstring>

#include "driven_application.h"
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

} // namespace
} // namespace nelvo
