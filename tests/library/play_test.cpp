// SPDX-License-Identifier: Apache-2.0
// Plays each script of transcripts.txt, with its fault if it has one, and compares what happens.
#include "driven_application.h"

#include <csignal>
#include <sstream>

#include <unistd.h>

#include <dlog.h>

#include "allocation_faults.h"
#include "sweep.h"

namespace nelvo {
namespace {

constexpr int MOST_ALLOCATIONS = 100; // of a script of transcripts.txt
constexpr const char *TWO_VERSIONS =  // of which the last counts
    R"(<manifest><ui-application appid="application.with.a.long.id">
    <metadata key="http://developer.tizen.org/tizen/metadata/nelvo/sdk/version" value="1.0-alpha"/>
    <metadata key="http://developer.tizen.org/tizen/metadata/nelvo/sdk/version" value="1.0"/>
    </ui-application></manifest>)";

std::string *leaked = nullptr;

struct Transcript {
    std::string title, script, function;
    int error = 0, nth = 0;
    std::vector<std::string> lines;
};

void PrintTo(const Transcript &transcript, std::ostream *out) {
    *out << transcript.title;
}

Transcript readTitle(const std::string &title) {
    Transcript transcript;
    transcript.title = title;
    std::istringstream(title) >> transcript.script >> transcript.function >> transcript.error >>
        transcript.nth;
    return transcript;
}

// The head of the file describes its format.
std::vector<Transcript> readTranscripts() {
    std::vector<Transcript> transcripts;
    std::map<std::string, std::vector<std::string>> named;
    std::vector<std::string> *lines = nullptr;
    for (const std::string &line : testkit::readTable(TABLES "/library/transcripts.txt")) {
        const std::string name = line.substr(line[0] == '$' ? line.find_first_not_of("$ ") : 0);
        if (line.rfind("> ", 0) == 0) {
            transcripts.push_back(readTitle(line.substr(2)));
            lines = &transcripts.back().lines;
        } else if (line.rfind("$ ", 0) == 0) {
            lines = &named[name];
        } else if (line[0] == '$') {
            lines->insert(lines->end(), named.at(name).begin(), named.at(name).end());
        } else {
            lines->push_back(line);
        }
    }
    for (std::size_t i = transcripts.size() - 1; i-- > 0;)
        if (transcripts[i].lines.empty())
            transcripts[i].lines = transcripts[i + 1].lines;
    return transcripts;
}

class TranscriptTest : public testing::TestWithParam<Transcript> {};

INSTANTIATE_TEST_SUITE_P(Of, TranscriptTest, testing::ValuesIn(readTranscripts()));

// Plays a script and returns what happened behind the bar. There the nth call of the row's function
// fails, or the nth allocation if the function is "new".
std::vector<std::string> playRow(const Transcript &row, int nth) {
    const bool whole = row.function.empty(), failsNew = row.function == "new";
    testkit::Simulation device(failsNew ? "application.with.a.long.id" : "demo.app");
    testkit::Play play(device,
                       whole ? testkit::Play::Check::MODEL : testkit::Play::Check::INVARIANTS);
    if (failsNew)
        device.setManifest(TWO_VERSIONS);
    const std::size_t bar = row.script.find('|');
    const std::string watched = row.script.substr(bar + 1);
    play.play(row.script.substr(0, bar));
    device.clearLog();
    if (failsNew)
        testkit::failAllocation(nth);
    else if (!whole)
        testkit::failPlatformCall(row.function, row.error, nth);
    play.play(watched);
    EXPECT_EQ(failsNew ? testkit::stopFailingAllocations() : testkit::stopFailing(), whole ? 0 : 1);
    const std::vector<std::string> lines = device.transcript();
    // A singleton that could not be allocated is missing for the life of the process.
    if (!failsNew || nelvo_initialize() == NELVO_ERROR_NONE)
        play.finishHealthily();
    EXPECT_THAT(play.complaints(), IsEmpty());
    device.takeWarnings(); // scripts complete requests too late on purpose
    EXPECT_EQ(host_sim_timer_count(), 0);
    EXPECT_EQ(testkit::liveHandles(), testkit::NO_HANDLES);
    return lines;
}

TEST_P(TranscriptTest, IsKeptToTheLetter) {
    const Transcript &row = GetParam();
    if (row.function != "new") {
        inFreshProcess(
            [&] { EXPECT_THAT(playRow(row, row.nth), testing::ElementsAreArray(row.lines)); });
        return;
    }
    bool isFound = false;
    for (int nth = 1; nth <= MOST_ALLOCATIONS && !isFound; ++nth) {
        testkit::Child child(
            [&] { return playRow(row, nth) == row.lines && !HasFailure() ? 0 : 1; });
        isFound = child.wait() == 0;
    }
    EXPECT_TRUE(isFound) << "these lines do not follow from the failure of any allocation";
}

// Each step of an application inside each callback, the scenarios without faults, and model.txt.
TEST(ModelTest, AgreesWithTheLibraryOnEveryScript) {
    const auto logPatterns = testkit::readTable(TABLES "/faults/log_lines.txt");
    auto scripts = testkit::readScripts(TABLES "/faults");
    for (const std::string &script : testkit::readTable(TABLES "/library/model.txt"))
        scripts.push_back(script);
    for (const std::string &script : scripts)
        ASSERT_EQ(testkit::playPoint({script, testkit::Play::Check::MODEL}, logPatterns),
                  testkit::Outcome::HELD)
            << script;
}

// The checks of a script must notice damage that is not done by the script.
TEST(HarnessTest, NoticesAWrongAnswerALeakAHangAndACrash) {
    using testkit::Outcome;
    const auto never = [](void *) -> Eina_Bool { return ECORE_CALLBACK_CANCEL; };
    const struct {
        const char *what;
        std::function<void()> damage;
        Outcome outcome = Outcome::BROKEN;
        std::chrono::milliseconds limit = testkit::HANG;
    } rows[] = {
        {"nothing", [] {}, Outcome::HELD},
        {"another result", [] { nelvo_unset_action_execution_cb("play"); }},
        {"a line that is not documented",
         [] { dlog_print(DLOG_ERROR, "NELVO-APPSDK", "v 1 %s(): oops", "f"); }},
        {"a block of memory", [] { leaked = new std::string; }},
        {"a bundle", [] { bundle_create(); }},
        {"a timer", [&] { ecore_timer_add(1000, never, nullptr); }},
        {"a crash", [] { std::raise(SIGKILL); }},
        {"a hang", [] { pause(); }, Outcome::BROKEN, std::chrono::milliseconds(100)},
    };
    const auto patterns = testkit::readTable(TABLES "/faults/log_lines.txt");
    for (const auto &row : rows) {
        testkit::Point point{"IJA|{F}R", testkit::Play::Check::MODEL};
        point.arm = row.damage;
        EXPECT_EQ(testkit::playPoint(point, patterns, row.limit), row.outcome) << row.what;
    }
}

} // namespace
} // namespace nelvo
