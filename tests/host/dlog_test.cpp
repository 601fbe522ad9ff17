// SPDX-License-Identifier: Apache-2.0
#include <dlog.h>

#include <cerrno>
#include <string>
#include <utility>

#include <unistd.h>

#include <gtest/gtest.h>

#include <host/log.h>

#include "allocation_faults.h"
#include "child.h"

namespace {

using namespace nelvo::testkit;

TEST(DlogTest, LetsNothingThroughThatIsLongOrNotPlainText) {
    const std::string most(16 * 1024, 'x'), lessOne = most.substr(1);
    const std::pair<std::string, std::string> rows[] = {
        {"a \\ \"b\" ~ \u00a0\u00e9\u20ac\U0001f600", "a \\ \"b\" ~ \u00a0\u00e9\u20ac\U0001f600"},
        {"a\r\nb\tc\n\x1b[2J\x7f C1 \xc2\x9b", "a\\r\\nb\\tc\\n\\x1b[2J\\x7f C1 \\xc2\\x9b"},
        {"lone \x80z broken off \xe2\x82z \xff", "lone \\x80z broken off \\xe2\\x82z \\xff"},
        {"overlong \xc0\xaf\xe0\x80\xaf", "overlong \\xc0\\xaf\\xe0\\x80\\xaf"},
        {"surrogate \xed\xa0\x80", "surrogate \\xed\\xa0\\x80"},
        {"beyond Unicode \xf4\x90\x80\x80", "beyond Unicode \\xf4\\x90\\x80\\x80"},
        {"cut short \xe2\x82", "cut short \\xe2\\x82"},
        {std::string(512, 'x'), std::string(512, 'x')},
        {most, most},
        {most + "y", most + " [cut]"},
        {lessOne + "\u20ac", lessOne + " [cut]"},
    };
    for (const auto &[text, shown] : rows) {
        const char *entry = text.c_str();
        EXPECT_EQ(stderrOfChild([=] { dlog_print(DLOG_ERROR, "T\n", "%s", entry); }),
                  "E T\\n: " + shown + "\n");
    }
}

TEST(DlogTest, RefusesBadArgumentsAndKeepsErrno) {
    const char *none = nullptr;
    EXPECT_EQ(dlog_print(DLOG_ERROR, none, "x"), -EINVAL);
    EXPECT_EQ(dlog_print(DLOG_ERROR, "T", none, 0), -EINVAL);
    EXPECT_EQ(dlog_print(static_cast<log_priority>(DLOG_VERBOSE - 1), "T", "x"), -EINVAL);
    Child child([] {
        close(STDERR_FILENO);
        errno = EAGAIN;
        return dlog_print(DLOG_ERROR, "T", "x") == -EBADF && errno == EAGAIN ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST(DlogTest, GivesTheSinkEveryEntryAsItIsOrItsBeginningWhenMemoryIsShort) {
    const std::string longText(20000, 'x');
    std::string seen;
    const auto collect = [](log_priority prio, const char *tag, const char *text, void *data) {
        stopFailingAllocations();
        *static_cast<std::string *>(data) += std::to_string(prio) + tag + text;
    };
    host_log_set_sink(collect, &seen);
    dlog_print(DLOG_VERBOSE, "T", "a\n%s", longText.c_str());
    failAllocation(1, true);
    dlog_print(DLOG_FATAL, "T", "%s", longText.c_str());
    EXPECT_EQ(seen, "2Ta\n" + longText + "7T" + longText.substr(0, 511));
    host_log_set_sink(nullptr, nullptr);
    const auto printWithoutMemory = [] {
        failAllocation(1, true);
        dlog_print(DLOG_ERROR, "T", "a%cxxx", '\x1b');
        stopFailingAllocations();
    };
    EXPECT_EQ(stderrOfChild(printWithoutMemory), "E T: a?xxx\n");
}

} // namespace
