// SPDX-License-Identifier: Apache-2.0
#include <dlog.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include <host/log.h>

#include "allocation_faults.h"
#include "child.h"

namespace {

using nelvo::testkit::stderrOfChild;

TEST(DlogTest, LetsNothingThroughThatIsLongOrNotPlainText) {
    const std::string most(16 * 1024, 'x'), lessOne = most.substr(1);
    const std::pair<std::string, std::string> rows[] = {
        {"a \\ \"b\" ~", "a \\ \"b\" ~"},
        {"a\r\nb\tc\n\x1b[2J\x7f", "a\\r\\nb\\tc\\n\\x1b[2J\\x7f"},
        {"\u00a0\u00e9\u20ac\U0001f600", "\u00a0\u00e9\u20ac\U0001f600"},
        {"C1 control \xc2\x9b", "C1 control \\xc2\\x9b"},
        {"cut short \xe2\x82", "cut short \\xe2\\x82"},
        {"broken off \xe2\x82z", "broken off \\xe2\\x82z"},
        {"overlong \xc0\xaf\xe0\x80\xaf", "overlong \\xc0\\xaf\\xe0\\x80\\xaf"},
        {"surrogate \xed\xa0\x80", "surrogate \\xed\\xa0\\x80"},
        {"beyond Unicode \xf4\x90\x80\x80\xff", "beyond Unicode \\xf4\\x90\\x80\\x80\\xff"},
        {std::string(512, 'x'), std::string(512, 'x')},
        {most, most},
        {most + "y", most + " [cut]"},
        {lessOne + "\u20ac", lessOne + " [cut]"},
    };
    for (const auto &[text, shown] : rows) {
        const char *entry = text.c_str();
        const auto output = stderrOfChild([=] { dlog_print(DLOG_ERROR, "T\n", "%s", entry); });
        EXPECT_TRUE("E T\\n: " + shown + "\n" == output) << output;
    }
}

TEST(DlogTest, RefusesBadArgumentsAndKeepsErrno) {
    const char *none = nullptr;
    EXPECT_EQ(-EINVAL, dlog_print(DLOG_ERROR, none, "x"));
    EXPECT_EQ(-EINVAL, dlog_print(DLOG_ERROR, "T", none, 0));
    EXPECT_EQ(-EINVAL, dlog_print(static_cast<log_priority>(DLOG_VERBOSE - 1), "T", "x"));
    EXPECT_EQ("", stderrOfChild([] {
                  close(STDERR_FILENO);
                  errno = EAGAIN;
                  const int result = dlog_print(DLOG_ERROR, "T", "x");
                  _exit(result == -EBADF && errno == EAGAIN ? 0 : 1);
              }));
}

TEST(DlogTest, GivesTheSinkEveryEntryAsItIsOrItsBeginningWhenMemoryIsShort) {
    const std::string longText(20000, 'x');
    std::string seen;
    auto collect = [](log_priority prio, const char *tag, const char *text, void *data) {
        nelvo::testkit::stopFailingAllocations();
        *static_cast<std::string *>(data) += std::to_string(prio) + tag + text;
    };
    host_log_set_sink(collect, &seen);
    dlog_print(DLOG_VERBOSE, "T", "a\n%s", longText.c_str());
    EXPECT_EQ("2Ta\n" + longText, std::exchange(seen, ""));
    nelvo::testkit::failAllocation(1, true);
    dlog_print(DLOG_FATAL, "T", "%s", longText.c_str());
    EXPECT_EQ("7T" + longText.substr(0, 511), seen);
    host_log_set_sink(nullptr, nullptr);
    EXPECT_EQ("E T: a?xxx\n", stderrOfChild([] {
                  nelvo::testkit::failAllocation(1, true);
                  dlog_print(DLOG_ERROR, "T", "a%cxxx", '\x1b');
                  nelvo::testkit::stopFailingAllocations();
              }));
}

} // namespace
