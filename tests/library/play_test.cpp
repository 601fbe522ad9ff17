// SPDX-License-Identifier: Apache-2.0
// Plays each script of transcripts.txt, with its fault if it has one, and compares all that happens.
#include "driven_application.h"

#include <sstream>

#include "sweep.h"

namespace nelvo {
namespace {

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

// The file itself says how it is to be read.
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

TEST_P(TranscriptTest, IsKeptToTheLetter) {
    const Transcript &row = GetParam();
    const bool whole = row.function.empty();
    testkit::Simulation device;
    testkit::Play play(device,
                       whole ? testkit::Play::Check::MODEL : testkit::Play::Check::INVARIANTS);
    const std::size_t bar = row.script.find('|');
    play.play(row.script.substr(0, bar));
    device.clearLog();
    if (!whole)
        testkit::failPlatformCall(row.function.c_str(), row.error, row.nth);
    play.play(row.script.substr(bar + 1));
    EXPECT_EQ(testkit::stopFailing(), whole ? 0 : 1);
    EXPECT_THAT(device.transcript(), testing::ElementsAreArray(row.lines));
    play.finishHealthily();
    EXPECT_THAT(play.complaints(), IsEmpty());
    device.takeWarnings(); // what the script does late it does on purpose
    EXPECT_EQ(host_sim_timer_count(), 0);
    EXPECT_EQ(testkit::liveHandles(), testkit::NO_HANDLES);
}

// What an application may do inside each callback, and the scenarios without their faults.
TEST(ModelTest, ForetellsEveryScenario) {
    std::vector<std::string> scripts = testkit::readTable(TABLES "/faults/scenarios.txt");
    const std::pair<const char *, const char *> places[] = {
        {"IJA|{", "}R"}, {"IJS|{", "}T"}, {"IJW|{", "}L."}};
    for (const auto &[before, behind] : places)
        for (const std::string &deed : testkit::readTable(TABLES "/faults/deeds.txt"))
            scripts.push_back(before + deed + behind);
    const auto logPatterns = testkit::readTable(TABLES "/faults/log_lines.txt");
    for (const std::string &script : scripts)
        ASSERT_EQ(testkit::playPoint({script, testkit::Play::Check::MODEL}, logPatterns),
                  testkit::Outcome::HELD)
            << script;
}

} // namespace
} // namespace nelvo
