// SPDX-License-Identifier: Apache-2.0
#include "envelope.h"

#include <cstring>
#include <utility>

namespace nelvo::client {

const char *const STATE_ACTION_ID = "getAppContext";
const char *const STATUS_SUCCESS = "ACTION_EXECUTION_SUCCESS";

namespace {

const char *const KEY_ACTION_ID = "actionId";
const char *const KEY_ACTION_TYPE = "actionType";
const char *const KEY_ACTION_PARAMS = "actionParams";
const char *const KEY_REQUEST_ID = "requestId";
const char *const KEY_STATUS_CODE = "status_code";

bool addText(bundle *b, const char *key, const std::optional<std::string> &text) {
    return !text || bundle_add_str(b, key, text->c_str()) == BUNDLE_ERROR_NONE;
}

void takeEntry(const char *key, const int type, const bundle_keyval_t *kv, void *data) {
    auto &response = *static_cast<Response *>(data);
    void *value = nullptr;
    size_t size = 0;
    // The platform's accessors take a non-const entry, and do not change it.
    if (type != BUNDLE_TYPE_STR && type != BUNDLE_TYPE_BYTE)
        return;
    if (bundle_keyval_get_basic_val(const_cast<bundle_keyval_t *>(kv), &value, &size) !=
        BUNDLE_ERROR_NONE)
        return;

    std::uint64_t requestId = 0;
    if (type == BUNDLE_TYPE_STR) {
        response.fields[key] = {static_cast<const char *>(value), size - 1};
    } else if (std::strcmp(key, KEY_REQUEST_ID) == 0 && size == sizeof requestId) {
        std::memcpy(&requestId, value, sizeof requestId);
        response.requestId = requestId;
    }
}

} // namespace

BundlePtr makeRequest(const Request &request) {
    BundlePtr made(bundle_create());
    bundle *b = made.get();
    if (!b || bundle_add_str(b, KEY_ACTION_ID, request.actionId.c_str()) != BUNDLE_ERROR_NONE ||
        bundle_add_byte(b, KEY_REQUEST_ID, &request.requestId, sizeof request.requestId) !=
            BUNDLE_ERROR_NONE ||
        !addText(b, KEY_ACTION_TYPE, request.actionType) ||
        !addText(b, KEY_ACTION_PARAMS, request.actionParams))
        return nullptr;
    return made;
}

std::string Response::field(std::string_view key) const {
    const auto found = fields.find(key);
    return std::string(found == fields.end() ? "" : found->second);
}

bool Response::succeeded() const {
    return field(KEY_STATUS_CODE) == STATUS_SUCCESS;
}

Response readResponse(BundlePtr content) {
    Response read;
    read.content = std::move(content);
    bundle_foreach(read.content.get(), takeEntry, &read);
    return read;
}

} // namespace nelvo::client
