// SPDX-License-Identifier: Apache-2.0
#include <app_info.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <app_common.h>
#include <host/log.h>
#include <host/sim.h>

#include "child.h"

namespace {

constexpr const char *ADVICE = ". Put a tizen-manifest.xml beside the executable, name one in "
                               "NELVO_HOST_MANIFEST, or set NELVO_HOST_APP_ID.\n";

std::string ownId() {
    char untouched[] = "(none)";
    char *id = untouched;
    const int result = app_get_id(&id);
    EXPECT_EQ(result == APP_ERROR_NONE, id != untouched);
    std::string text = id;
    if (result == APP_ERROR_NONE)
        std::free(id);
    return text;
}

std::string manifestOf(const std::string &appid, const std::string &inside = "") {
    return "<manifest><ui-application appid=\"" + appid + "\">" + inside +
           "</ui-application></manifest>";
}

// "key=value;" for each, up to the one whose key is "stop"; "(none)" without such an application.
std::string metadataOf(const char *id) {
    app_info_h info = nullptr;
    const int result = app_info_create(id, &info);
    if (result != APP_MANAGER_ERROR_NONE) {
        EXPECT_EQ(APP_MANAGER_ERROR_NO_SUCH_APP, result);
        EXPECT_EQ(nullptr, info);
        return "(none)";
    }
    host_sim_set_manifest(nullptr); // the handle keeps what it was made from
    std::string seen;
    auto collect = [](const char *key, const char *value, void *to) {
        *static_cast<std::string *>(to) += std::string(key) + "=" + value + ";";
        return std::string(key) != "stop";
    };
    EXPECT_EQ(0, app_info_foreach_metadata(info, collect, &seen));
    EXPECT_EQ(0, app_info_destroy(info));
    return seen;
}

class AppInfoTest : public testing::Test {
protected:
    void SetUp() override {
        unsetenv("NELVO_HOST_APP_ID");
        unsetenv("NELVO_HOST_MANIFEST");
        unsetenv("NELVO_LOG");
        host_log_set_sink(collectCb, &log);
    }

    static void collectCb(log_priority, const char *, const char *text, void *data) {
        *static_cast<std::string *>(data) += std::string(text) + "\n";
    }

    std::string log;
};

TEST_F(AppInfoTest, FindsTheFirstApplicationAndItsMetadataInOrder) {
    const std::string two = "<?xml version='1.0' encoding='utf-8'?>\n"
                            "<manifest xmlns='urn:x' package='p'><label>x</label>"
                            "<profile><metadata key='wrong' value='1'/></profile>"
                            "<service-application exec='e' appid='first.app'>"
                            "<icon><metadata key='too deep'/></icon>"
                            "<metadata key='b' value='&lt;1&#233;'/><metadata key='a'/>"
                            "<metadata value='' key='stop'/><metadata key='unseen' value='1'/>"
                            "</service-application><metadata key='wrong' value='1'/>"
                            "<ui-application appid='second.app'><metadata key='k' value='v'/>"
                            "</ui-application></manifest>";
    const struct {
        const char *id, *metadata;
    } rows[] = {
        {"first.app", "b=<1\xc3\xa9;a=;stop=;"},
        {"second.app", "k=v;"},
        {"second", "(none)"},
        {"", "(none)"},
    };
    for (const auto &row : rows) {
        host_sim_set_manifest(two.c_str());
        EXPECT_EQ("first.app", ownId());
        EXPECT_EQ(row.metadata, metadataOf(row.id)) << row.id;
    }
    EXPECT_EQ("", log);
}

TEST_F(AppInfoTest, RefusesABrokenManifestAndSaysWhere) {
    const std::string names = "; use up to 127 letters, digits, '.', '_' and '-', not starting "
                              "with '.' or '-', without \"..\"";
    const struct {
        std::string xml, complaint;
    } rows[] = {
        {"", ", line 1, column 1: no element found"},
        {"<manifest>\n <profile></manifest>", ", line 2, column 13: mismatched tag"},
        {manifestOf("a.b") + "<more/>", ", line 1, column 67: junk after document element"},
        {"<package/>", ", line 1, column 1: the outermost element is not <manifest>"},
        {"<manifest><ui-application/></manifest>",
         ", line 1, column 11: <ui-application> has no appid"},
        {manifestOf("a/b"), ", line 1, column 11: appid \"a/b\" cannot be used" + names},
        {manifestOf("a.b", "\n<metadata value='v'/>"), ", line 2, column 1: <metadata> has no key"},
        {"<!DOCTYPE manifest [<!ENTITY a 'b'>]>" + manifestOf("a.b"),
         ", line 1, column 20: a DOCTYPE is not allowed here"},
        {manifestOf("a.b", std::string(1024 * 1024, ' ')), ": it is larger than 1 MiB"},
    };
    for (const auto &row : rows) {
        log.clear();
        host_sim_set_manifest(manifestOf("before.app").c_str());
        host_sim_set_manifest(row.xml.c_str());
        EXPECT_EQ("The manifest is not used: installed manifest" + row.complaint + "\n", log);
        EXPECT_EQ("(none)", ownId());
        EXPECT_EQ("(none)", metadataOf("a.b"));
    }
}

TEST_F(AppInfoTest, TakesOnlyNamesThatAreSafeInAPath) {
    const std::string longest(127, 'x');
    for (const std::string &good : {std::string("a"), std::string("_"), std::string("Az09._-."),
                                    std::string("0.a-"), longest}) {
        host_sim_set_manifest(manifestOf(good).c_str());
        EXPECT_EQ(good, ownId());
    }
    for (const std::string &bad :
         {std::string(), std::string("."), std::string(".a"), std::string("-a"),
          std::string("a..b"), std::string("a.."), std::string("a b"), std::string("a/b"),
          std::string("\xc3\xa9"), std::string("a:"), longest + "x"}) {
        host_sim_set_manifest(manifestOf(bad).c_str());
        EXPECT_EQ("(none)", ownId()) << bad;
    }
}

TEST_F(AppInfoTest, PrefersTheIdFromTheEnvironment) {
    host_sim_set_manifest(manifestOf("manifest.app").c_str());
    const struct {
        const char *named, *id;
    } rows[] = {{"named.app", "named.app"}, {"", "manifest.app"}, {"../x", "(none)"}};
    for (const auto &row : rows) {
        setenv("NELVO_HOST_APP_ID", row.named, 1);
        EXPECT_EQ(row.id, ownId()) << row.named;
    }
    EXPECT_EQ(0u,
              log.find("This process has no application id: NELVO_HOST_APP_ID is \"../x\"; use"))
        << log;
}

TEST_F(AppInfoTest, RefusesNullArguments) {
    app_info_h info = nullptr;
    auto ignore = [](const char *, const char *, void *) { return true; };
    host_sim_set_manifest(manifestOf("a.b").c_str());
    ASSERT_EQ(0, app_info_create("a.b", &info));
    EXPECT_EQ(APP_ERROR_INVALID_PARAMETER, app_get_id(nullptr));
    EXPECT_EQ(APP_MANAGER_ERROR_INVALID_PARAMETER, app_info_create(nullptr, &info));
    EXPECT_EQ(APP_MANAGER_ERROR_INVALID_PARAMETER, app_info_create("a.b", nullptr));
    EXPECT_EQ(APP_MANAGER_ERROR_INVALID_PARAMETER,
              app_info_foreach_metadata(nullptr, ignore, nullptr));
    EXPECT_EQ(APP_MANAGER_ERROR_INVALID_PARAMETER,
              app_info_foreach_metadata(info, nullptr, nullptr));
    EXPECT_EQ(APP_MANAGER_ERROR_INVALID_PARAMETER, app_info_destroy(nullptr));
    EXPECT_EQ(0, app_info_destroy(info));
}

TEST_F(AppInfoTest, ComplainsOnceThatThereIsNoManifest) {
    host_sim_set_manifest(nullptr);
    EXPECT_EQ("(none)", ownId());
    EXPECT_EQ("(none)", ownId());
    EXPECT_EQ("This process has no application id: the manifest has been uninstalled" +
                  std::string(ADVICE),
              log);
}

// In a folder of its own; each use of a file in a child, because it is read once.
class ManifestFileTest : public AppInfoTest {
protected:
    void SetUp() override {
        AppInfoTest::SetUp();
        host_log_set_sink(nullptr, nullptr);
        ASSERT_NE(nullptr, mkdtemp(folder));
        file = std::string(folder) + "/m.xml";
    }

    void TearDown() override {
        unlink(file.c_str());
        rmdir(folder);
    }

    void write(const std::string &text) {
        std::FILE *stream = std::fopen(file.c_str(), "w");
        ASSERT_NE(nullptr, stream);
        std::fputs(text.c_str(), stream);
        std::fclose(stream);
    }

    // What the log said, then the id.
    static std::string outcome(const std::string &path) {
        return stderrOfChild([&] {
            setenv("NELVO_HOST_MANIFEST", path.c_str(), 1);
            const std::string id = ownId();
            dprintf(STDERR_FILENO, "%s", id.c_str());
        });
    }

    char folder[24] = "app_info_test.XXXXXX";
    std::string file;
};

TEST_F(ManifestFileTest, IsReadOnce) {
    write(manifestOf("a.b", std::string(10000, ' ')));
    EXPECT_EQ("first a.b, then a.b", stderrOfChild([&] {
                  setenv("NELVO_HOST_MANIFEST", file.c_str(), 1);
                  const std::string first = ownId();
                  write(manifestOf("c.d"));
                  dprintf(STDERR_FILENO, "first %s, then %s", first.c_str(), ownId().c_str());
              }));
}

TEST_F(ManifestFileTest, IsNamedWhenItCannotBeUsed) {
    const std::string noId = "E NELVO-HOST: This process has no application id: ";
    const std::string none = ADVICE + std::string("(none)");
    EXPECT_EQ(noId + file + ": No such file or directory" + none, outcome(file));
    EXPECT_EQ(noId + folder + ": not a file" + none, outcome(folder));

    write("<manifest>");
    const std::string broken = file + ", line 1, column 11: no element found";
    EXPECT_EQ("E NELVO-HOST: The manifest is not used: " + broken + "\n" + noId + broken + none,
              outcome(file));
    write("<manifest/>");
    EXPECT_EQ(noId + file + ": it has no <ui-application> or <service-application>" + none,
              outcome(file));

    ASSERT_EQ(0, unlink(file.c_str()));
    ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
    EXPECT_EQ(noId + file + ": not a file" + none, outcome(file));
}

TEST_F(ManifestFileTest, IsLookedForBesideTheExecutable) {
    char executable[PATH_MAX] = {};
    ASSERT_LT(0, readlink("/proc/self/exe", executable, sizeof executable - 1));
    const std::string path = executable;
    const std::string expected = path.substr(0, path.rfind('/')) + "/tizen-manifest.xml: No such";
    const std::string output = outcome("");
    EXPECT_NE(std::string::npos, output.find(expected)) << output;
}

} // namespace
