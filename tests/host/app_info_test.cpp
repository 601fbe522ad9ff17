// SPDX-License-Identifier: Apache-2.0
#include <app_info.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include <app_common.h>
#include <host/app_id.h>
#include <host/manifest.h>
#include <host/sim.h>

#include "child.h"

namespace {

using nelvo::testkit::stderrOfChild;

using namespace std::string_literals;

const std::string NO_ID = "E NELVO-HOST: This process has no application id: ";
const std::string ADVICE = ". Put a tizen-manifest.xml beside the executable, name one in "
                           "NELVO_HOST_MANIFEST, or set NELVO_HOST_APP_ID.\n";
const std::string VALID_NAME = "; use up to 127 letters, digits, '.', '_' and '-', not starting "
                               "with '.' or '-', without \"..\"";

std::string manifestOf(const std::string &appid, const std::string &inside = "") {
    return "<manifest><ui-application appid=\"" + appid + "\">" + inside +
           "</ui-application></manifest>";
}

bool showMetadata(const char *key, const char *value, void *handle) {
    auto &info = *static_cast<app_info_h *>(handle);
    if (std::strcmp(key, "destroy") == 0)
        app_info_destroy(std::exchange(info, nullptr));
    dprintf(STDERR_FILENO, " %s=%s", key, value);
    return std::strcmp(key, "stop") != 0;
}

// What a process with that variable and installed manifest, if any, logs, then its id and the
// metadata of "first.app".
std::string outcome(const char *variable, const std::string &value, const std::string &xml = "") {
    return stderrOfChild([&] {
        for (const char *name : {"NELVO_HOST_APP_ID", "NELVO_HOST_MANIFEST", "NELVO_LOG"})
            unsetenv(name);
        setenv(variable, value.c_str(), 1);
        if (!xml.empty())
            host_sim_set_manifest(xml.c_str());
        char none[] = "", *id = none, *again = none;
        if (app_get_id(&id) + app_get_id(&again) == 0) // complains once
            std::free(again);
        dprintf(STDERR_FILENO, "%s", id);
        if (id != none)
            std::free(id);
        app_info_h info = nullptr;
        if (app_info_create("first.app", &info) == APP_MANAGER_ERROR_NO_SUCH_APP)
            return;
        host_sim_set_manifest(nullptr); // the handle keeps what it was made from
        app_info_foreach_metadata(info, showMetadata, &info);
        app_info_destroy(info);
    });
}

TEST(AppInfoTest, ShowsWhatAnInstalledManifestSays) {
    const std::string rich =
        "<?xml version='1.0' encoding='utf-8'?>\n<manifest xmlns='urn:x' package='p'>"
        "<service-application exec='e' appid='first.app'><icon><metadata key='too deep'/></icon>"
        "<metadata key='destroy' value='&lt;1&#233;'/><metadata key='a'/></service-application>"
        "<profile><metadata key='wrong'/></profile><metadata key='wrong'/>"
        "<ui-application appid='second.app'><metadata key='k' value='v'/></ui-application>"
        "</manifest>";
    EXPECT_EQ(outcome("NELVO_LOG", "", rich), "first.app destroy=<1\u00e9 a=");
    const std::pair<std::string, std::string> broken[] = {
        {manifestOf("a.b") + "\n <more/>", ", line 2, column 2: junk after document element"},
        {"<package/>", ", line 1, column 1: the outermost element is not <manifest>"},
        {"<manifest><ui-application/></manifest>",
         ", line 1, column 11: <ui-application> has no appid"},
        {manifestOf("a/b"), ", line 1, column 11: appid \"a/b\" cannot be used" + VALID_NAME},
        {manifestOf("a.b", "\n<metadata value='v'/>"), ", line 2, column 1: <metadata> has no key"},
        {"<!DOCTYPE manifest [<!ENTITY a 'b'>]>" + manifestOf("a.b"),
         ", line 1, column 20: a DOCTYPE is not allowed here"},
        {manifestOf("a.b", std::string(1024 * 1024, ' ')), ": it is larger than 1 MiB"},
    };
    for (const auto &[xml, fault] : broken) {
        const std::string problem = "installed manifest" + fault;
        EXPECT_EQ("E NELVO-HOST: The manifest is not used: " + problem + "\n" + NO_ID + problem +
                      ADVICE,
                  outcome("NELVO_LOG", "", xml));
    }
}

TEST(AppInfoTest, PrefersTheIdFromTheEnvironmentIfItIsSafeInAPath) {
    const std::string longest(127, 'x'), tooLong = longest + "x";
    const auto outcomeOf = [](const std::string &id) {
        const char *metadata = "<metadata key='stop'/><metadata key='unseen'/>";
        return outcome("NELVO_HOST_APP_ID", id, manifestOf("first.app", metadata));
    };
    EXPECT_EQ(outcomeOf(""), "first.app stop=");
    for (const std::string good : {"a", "_", "Az09._-.", "0.a-", longest.c_str()})
        EXPECT_EQ(good + " stop=", outcomeOf(good));
    for (const std::string bad : {".", ".a", "-a", "a..b", "a b", "a/b", "\u00e9", tooLong.c_str()})
        EXPECT_EQ(NO_ID + "NELVO_HOST_APP_ID is \"" + bad + "\"" + VALID_NAME + ADVICE + " stop=",
                  outcomeOf(bad));
}

TEST(AppInfoTest, KeepsTheIdUntilAnotherManifestIsInstalledOrOneIsGiven) {
    const auto ownId = [] {
        char *id = nullptr;
        EXPECT_EQ(app_get_id(&id), APP_ERROR_NONE);
        const std::unique_ptr<char, void (*)(void *)> owner(id, std::free);
        return std::string(id);
    };
    host_sim_set_manifest(manifestOf("first").c_str());
    setenv("NELVO_HOST_APP_ID", "named", 1);
    EXPECT_EQ(ownId(), "named");
    unsetenv("NELVO_HOST_APP_ID"); // too late
    EXPECT_EQ(ownId(), "named");
    host_sim_set_manifest(manifestOf("other").c_str());
    EXPECT_EQ(ownId(), "other");
    EXPECT_EQ(host_set_app_id("given"), APP_ERROR_NONE);
    for (const char *bad : {"a b", "", static_cast<const char *>(nullptr)})
        EXPECT_EQ(host_set_app_id(bad), APP_ERROR_INVALID_PARAMETER);
    host_sim_set_manifest(manifestOf("another").c_str());
    EXPECT_EQ(ownId(), "given");
}

TEST(AppInfoTest, ReadsTheFileThatTheEnvironmentNames) {
    const auto outcomeOf = [](const auto &path) { return outcome("NELVO_HOST_MANIFEST", path); };
    char folder[] = "app_info_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(folder));
    const std::string fifo = folder + "/fifo"s; // nobody writes: opening it must not wait
    EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(NO_ID + fifo + ": not a file" + ADVICE, outcomeOf(fifo));
    EXPECT_EQ(NO_ID + folder + ": not a file" + ADVICE, outcomeOf(folder));
    EXPECT_EQ(unlink(fifo.c_str()), 0);
    EXPECT_EQ(rmdir(folder), 0);
    EXPECT_EQ(NO_ID + fifo + ": No such file or directory" + ADVICE, outcomeOf(fifo));

    const int file = memfd_create("manifest", 0);
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    dprintf(file, "<manifest> %-9000s", "");
    EXPECT_EQ(0u, outcomeOf(path).find("E NELVO-HOST: The manifest is not used: /proc/"));
    dprintf(file, "</manifest>");
    EXPECT_EQ(NO_ID + path + ": it has no <ui-application> or <service-application>" + ADVICE,
              outcomeOf(path));
    EXPECT_NE(outcomeOf("").find("/tizen-manifest.xml: No such file"), std::string::npos);
}

TEST(AppInfoTest, FindsAnApplicationInAnotherManifestWithoutInstallingIt) {
    const int file = memfd_create("manifest", 0);
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    app_info_h info = nullptr;
    dprintf(file, "<manifest>");
    EXPECT_EQ(host_manifest_find_app(path.c_str(), "first.app", &info),
              APP_MANAGER_ERROR_NO_SUCH_APP);
    dprintf(file, "<ui-application appid='first.app'><metadata key='k'/></ui-application>"
                  "</manifest>");
    EXPECT_EQ(host_manifest_find_app(path.c_str(), "other", &info), APP_MANAGER_ERROR_NO_SUCH_APP);
    EXPECT_EQ(host_manifest_find_app(path.c_str(), nullptr, &info),
              APP_MANAGER_ERROR_INVALID_PARAMETER);
    ASSERT_EQ(host_manifest_find_app(path.c_str(), "first.app", &info), APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(app_info_destroy(info), APP_MANAGER_ERROR_NONE);
    EXPECT_EQ(outcome("NELVO_HOST_APP_ID", "named", manifestOf("own.app")), "named");
}

} // namespace
