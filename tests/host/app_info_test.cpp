// SPDX-License-Identifier: Apache-2.0
// What no environment of a process shows; tests/programs/host.md has the rest.
#include <app_info.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include <sys/mman.h>

#include <gtest/gtest.h>

#include <app_common.h>
#include <host/app_id.h>
#include <host/manifest.h>
#include <host/sim.h>

namespace {

std::string manifestOf(const std::string &appid, const std::string &inside = "") {
    return "<manifest><ui-application appid=\"" + appid + "\">" + inside +
           "</ui-application></manifest>";
}

std::string ownId() {
    char *id = nullptr;
    EXPECT_EQ(app_get_id(&id), APP_ERROR_NONE);
    const std::unique_ptr<char, void (*)(void *)> owner(id, std::free);
    return id;
}

// The handle keeps what it was made from, whatever the callback does.
TEST(AppInfoTest, ShowsMetadataUntilTheCallbackStops) {
    host_sim_set_manifest(manifestOf("first.app",
                                     "<metadata key='a' value='1'/><metadata key='destroy'/>"
                                     "<metadata key='stop'/><metadata key='unseen'/>")
                              .c_str());
    std::pair<app_info_h, std::string> seen;
    const auto show = [](const char *key, const char *value, void *data) {
        auto &[info, text] = *static_cast<decltype(seen) *>(data);
        if (key == std::string("destroy"))
            app_info_destroy(std::exchange(info, nullptr));
        text += key + std::string("=") + value + " ";
        return key != std::string("stop");
    };
    ASSERT_EQ(app_info_create("first.app", &seen.first), APP_MANAGER_ERROR_NONE);
    host_sim_set_manifest(nullptr);
    EXPECT_EQ(app_info_foreach_metadata(seen.first, show, &seen), APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(seen.second, "a=1 destroy= stop= ");
}

TEST(AppInfoTest, FindsAnApplicationInAnotherManifestWithoutInstallingIt) {
    const int file = memfd_create("manifest", 0);
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    app_info_h info = nullptr;
    const auto find = [&](const char *id) {
        return host_manifest_find_app(path.c_str(), id, &info);
    };
    host_sim_set_manifest(manifestOf("own.app").c_str());
    dprintf(file, "<manifest><ui-application appid='an.app'><metadata key='k'/></ui-application>");
    EXPECT_EQ(find("an.app"), APP_MANAGER_ERROR_NO_SUCH_APP) << "an unfinished file";
    dprintf(file, "</manifest>");
    EXPECT_EQ(find("other"), APP_MANAGER_ERROR_NO_SUCH_APP);
    EXPECT_EQ(find(nullptr), APP_MANAGER_ERROR_INVALID_PARAMETER);
    ASSERT_EQ(find("an.app"), APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(app_info_destroy(info), APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(ownId(), "own.app");
}

// Last, because nothing takes back an id that was given.
TEST(AppInfoTest, KeepsTheIdUntilAnotherManifestIsInstalledOrOneIsGiven) {
    host_sim_set_manifest(manifestOf("first").c_str());
    setenv("NELVO_HOST_APP_ID", "named", 1);
    EXPECT_EQ(ownId(), "named");
    unsetenv("NELVO_HOST_APP_ID"); // too late
    EXPECT_EQ(ownId(), "named");
    host_sim_set_manifest(manifestOf("other").c_str());
    EXPECT_EQ(ownId(), "other");
    EXPECT_EQ(host_set_app_id("given"), APP_ERROR_NONE);
    EXPECT_EQ(host_set_app_id("a b"), APP_ERROR_INVALID_PARAMETER);
    host_sim_set_manifest(manifestOf("another").c_str());
    EXPECT_EQ(ownId(), "given");
}

} // namespace
