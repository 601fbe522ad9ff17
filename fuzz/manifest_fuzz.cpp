// SPDX-License-Identifier: Apache-2.0
// What the application learns from a manifest it learns again from a plain one that says just that,
// and from a plain one that is made of the input's lines it learns them all.
#include <cctype>

#include <app_common.h>
#include <app_info.h>
#include <host/sim.h>

#include "fuzzing.h"

using namespace nelvo::testkit;

static std::string quoted(const std::string &text) {
    std::string result = "\"";
    for (const char byte : text)
        result += (byte & 0x80) || std::isalnum(byte) ? std::string(1, byte)
                                                      : "&#" + std::to_string(byte) + ";";
    return result + "\"";
}

static bool addMetadata(const char *key, const char *value, void *xml) {
    *static_cast<std::string *>(xml) +=
        "<metadata key=" + quoted(key) + " value=" + quoted(value) + "/>";
    return true;
}

static const std::string BEGIN = "<manifest><service-application appid=";
static const std::string END = "</service-application></manifest>";

// The plain one; empty when the manifest names no application.
static std::string learn(const std::string &manifest) {
    host_sim_set_manifest(manifest.c_str());
    char *id = nullptr;
    app_info_h info = nullptr;
    if (app_get_id(&id) != APP_ERROR_NONE)
        return "";
    std::string xml = BEGIN + quoted(id) + ">";
    require(app_info_create(id, &info) == APP_MANAGER_ERROR_NONE, "whether the own id is known");
    app_info_foreach_metadata(info, addMetadata, &xml);
    app_info_destroy(info);
    std::free(id);
    return xml + END;
}

void nelvo::testkit::fuzz(Input input) {
    const std::string plain = learn(Input(input).rest());
    require(plain.empty() || learn(plain) == plain, "the plain manifest");
    std::string made = BEGIN + quoted("demo.app") + ">";
    for (std::string key; !input.isEmpty(); addMetadata(key.c_str(), (key + "<").c_str(), &made))
        key = input.printableLine();
    require(learn(made + END) == made + END, "a manifest of lines");
}
