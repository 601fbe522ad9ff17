// SPDX-License-Identifier: Apache-2.0
#include <dlog.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include <gtest/gtest.h>

#include <host/log.h>

#include "child.h"
#include "failing_allocations.h"

namespace {

std::string logged(const std::string &text) {
    return stderrOfChild([&] { dlog_print(DLOG_ERROR, "TAG", "%s", text.c_str()); });
}

class DlogTest : public testing::Test {
protected:
    void SetUp() override { unsetenv("NELVO_LOG"); }
};

TEST_F(DlogTest, WritesFromTheLevelThatTheEnvironmentNames) {
    const std::string complaint =
        "W NELVO-HOST: NELVO_LOG is \"loud\", taken as warn; set it to verbose, debug, info, warn, "
        "error, fatal or silent\n";
    const struct {
        const char *level;
        std::string expected;
    } rows[] = {
        {"verbose", "V T: 2\nD T: 3\nI T: 4\nW T: 5\nE T: 6\nF T: 7\n"},
        {"debug", "D T: 3\nI T: 4\nW T: 5\nE T: 6\nF T: 7\n"},
        {"info", "I T: 4\nW T: 5\nE T: 6\nF T: 7\n"},
        {"warn", "W T: 5\nE T: 6\nF T: 7\n"},
        {"error", "E T: 6\nF T: 7\n"},
        {"fatal", "F T: 7\n"},
        {"silent", ""},
        {"", "W T: 5\nE T: 6\nF T: 7\n"},
        {"loud", complaint + "W T: 5\nE T: 6\nF T: 7\n"},
        {nullptr, "W T: 5\nE T: 6\nF T: 7\n"},
    };
    for (const auto &row : rows) {
        const std::string output = stderrOfChild([&] {
            if (row.level != nullptr)
                setenv("NELVO_LOG", row.level, 1);
            for (int prio = DLOG_VERBOSE; prio <= DLOG_FATAL; prio++)
                dlog_print(static_cast<log_priority>(prio), "T", "%d", prio);
        });
        EXPECT_EQ(row.expected, output) << (row.level ? row.level : "(unset)");
    }
}

TEST_F(DlogTest, LetsNothingThroughThatIsNotPlainText) {
    const struct {
        const char *what, *text, *shown;
    } rows[] = {
        {"plain text", "a \\ \"b\" ~", "a \\ \"b\" ~"},
        {"line ends and tabs", "a\r\nb\tc\n", "a\\r\\nb\\tc\\n"},
        {"escape sequences and delete", "\x1b[2J\x7f", "\\x1b[2J\\x7f"},
        {"UTF-8", "\xc2\xa0\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
         "\xc2\xa0\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {"C1 controls", "\xc2\x9b", "\\xc2\\x9b"},
        {"a lone continuation", "a\x80z", "a\\x80z"},
        {"a character cut short", "a\xe2\x82", "a\\xe2\\x82"},
        {"a character broken off", "\xe2\x82z", "\\xe2\\x82z"},
        {"overlong forms", "\xc0\xaf\xe0\x80\xaf", "\\xc0\\xaf\\xe0\\x80\\xaf"},
        {"a surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"beyond Unicode", "\xf4\x90\x80\x80\xff", "\\xf4\\x90\\x80\\x80\\xff"},
    };
    for (const auto &row : rows)
        EXPECT_EQ("E TAG: " + std::string(row.shown) + "\n", logged(row.text)) << row.what;
    EXPECT_EQ("E T\\n: x\n", stderrOfChild([] { dlog_print(DLOG_ERROR, "T\n", "x"); }));
}

TEST_F(DlogTest, CutsLongEntriesBetweenCharacters) {
    const std::string most(16 * 1024, 'x');
    const std::string lessOne = most.substr(1);
    const struct {
        const char *what;
        std::string text, shown;
    } rows[] = {
        {"beyond a small buffer", std::string(512, 'x'), std::string(512, 'x')},
        {"the longest", most, most},
        {"one byte more", most + "y", most + " [cut]"},
        {"far more", most + most, most + " [cut]"},
        {"the cut inside a character", lessOne + "\xe2\x82\xac", lessOne + " [cut]"},
    };
    for (const auto &row : rows)
        EXPECT_TRUE("E TAG: " + row.shown + "\n" == logged(row.text)) << row.what;
}

TEST_F(DlogTest, RefusesBadArgumentsAndCountsTheBytes) {
    const char *none = nullptr;
    const std::string output = stderrOfChild([&] {
        const struct {
            int result, expected;
        } rows[] = {
            {dlog_print(DLOG_ERROR, none, "x"), -EINVAL},
            {dlog_print(DLOG_ERROR, "T", none, 0), -EINVAL},
            {dlog_print(static_cast<log_priority>(1), "T", "x"), -EINVAL},
            {dlog_print(static_cast<log_priority>(0), "T", "x"), -EINVAL},
            {dlog_print(DLOG_INFO, "T", "x"), 0},
            {dlog_print(DLOG_ERROR, "T", "x"), 7},
        };
        for (const auto &row : rows) {
            if (row.result != row.expected)
                _exit(1);
        }
        errno = EAGAIN;
        close(STDERR_FILENO);
        if (dlog_print(DLOG_ERROR, "T", "x") != -EBADF || errno != EAGAIN)
            _exit(2);
    });
    EXPECT_EQ("E T: x\n", output);
}

TEST_F(DlogTest, UsesColourOnlyOnATerminalThatWantsIt) {
    for (const char *noColour : {static_cast<const char *>(nullptr), "1"}) {
        const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
        ASSERT_EQ(0, grantpt(terminal));
        ASSERT_EQ(0, unlockpt(terminal));
        const int screen = open(ptsname(terminal), O_RDWR | O_NOCTTY);
        ASSERT_LE(0, screen);
        EXPECT_EQ("", stderrOfChild([&] {
                      unsetenv("NO_COLOR");
                      if (noColour != nullptr)
                          setenv("NO_COLOR", noColour, 1);
                      dup2(screen, STDERR_FILENO);
                      dlog_print(DLOG_ERROR, "T", "x");
                  }));
        char shown[64];
        const ssize_t size = read(terminal, shown, sizeof shown);
        ASSERT_LT(0, size);
        EXPECT_EQ(noColour != nullptr ? "E T: x\r\n" : "\x1b[31mE T: x\x1b[0m\r\n",
                  std::string(shown, static_cast<std::size_t>(size)));
        close(screen);
        close(terminal);
    }
}

TEST_F(DlogTest, GivesTheSinkEveryEntryAsItIs) {
    std::string seen;
    auto collect = [](log_priority prio, const char *tag, const char *text, void *data) {
        *static_cast<std::string *>(data) += std::to_string(prio) + tag + text;
    };
    const std::string longText(20000, 'x');
    EXPECT_EQ("", stderrOfChild([&] {
                  host_log_set_sink(collect, &seen);
                  dlog_print(DLOG_VERBOSE, "T", "a\n%d", 1);
                  dlog_print(DLOG_FATAL, "T", "%s", longText.c_str());
                  _exit(seen == "2Ta\n1" + ("7T" + longText) ? 0 : 1);
              }));
    EXPECT_EQ("E T: x\n", stderrOfChild([&] {
                  host_log_set_sink(collect, &seen);
                  host_log_set_sink(nullptr, nullptr);
                  dlog_print(DLOG_ERROR, "T", "x");
              }));
}

TEST_F(DlogTest, KeepsTheBeginningOfAnEntryThatThereIsNoMemoryFor) {
    EXPECT_EQ("E T: a?b\n", stderrOfChild([] {
                  allocations::untilFailure = 0;
                  dlog_print(DLOG_ERROR, "T", "a%cb", '\x1b');
              }));
}

} // namespace
