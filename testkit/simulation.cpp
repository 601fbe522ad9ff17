// SPDX-License-Identifier: Apache-2.0
#include <nelvo/testkit.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <regex>
#include <stdexcept>

#include <sys/mman.h>
#include <unistd.h>

#include <host/log.h>
#include <host/sim.h>

#include "completion_watch.h"
#include "fault_scope.h"
#include "platform_faults.h"
#include "registrations.h"
#include "simulated_app.h"
#include "testkit_export.h"

namespace nelvo::testkit {
namespace {

constexpr const char *ALLOW_LIST_FILE = "/usr/share/nelvo/allow_list.dat";
constexpr const char *LIBRARY = "NELVO-APPSDK"; // its tag in the log
constexpr const char *NOTE = "NOTE";            // the tag of a test's own notes
constexpr const char *SDK_VERSION_KEY =
    "http://developer.tizen.org/tizen/metadata/nelvo/sdk/version";

struct Device {
    std::string appId; // empty: no simulation is running
    std::optional<std::string> allowList;
    std::vector<LogLine> log;
    CompletionWatch completions;
    Registrations registrations;
};

Device device;

// Takes "head function(...head" apart: the function ends at its "(", the message follows separator.
void takeApart(LogLine &line, const char *separator, char functionStart) {
    const std::size_t end = line.text.find(separator);
    if (end == std::string::npos)
        return;
    const std::size_t open = line.text.rfind('(', end);
    const std::size_t start = line.text.rfind(functionStart, open);
    line.function = line.text.substr(start + 1, open - start - 1);
    line.message = line.text.substr(end + std::strlen(separator));
}

void keepLine(log_priority priority, const char *tag, const char *text, void *) {
    const FaultScope scope(false);
    LogLine line{priority, tag, "", text, text};
    if (line.tag == LIBRARY) {
        takeApart(line, "(): ", ' ');
        device.completions.heed(line);
        device.registrations.heed(line);
    } else if (line.tag == "RPC_PORT_STUB") {
        takeApart(line, ") > ", ' ');
    }
    device.log.push_back(std::move(line));
}

// No test passes with a mistake in the use of the platform.
[[noreturn]] void abortWith(const char *sentence) {
    std::fprintf(stderr, "nelvo test kit: %s; a device may crash here\n", sentence);
    std::abort();
}

} // namespace

std::string LogLine::summary() const {
    return std::string(1, "??VDIWEF"[priority]) + " " + function + ": " + message;
}

std::string simulatedAppId() {
    return device.appId;
}

bool isAllowList(const char *path) {
    return !device.appId.empty() && std::strcmp(path, ALLOW_LIST_FILE) == 0;
}

int openAllowList() {
    if (!device.allowList) {
        errno = ENOENT;
        return -1;
    }
    const std::string &content = *device.allowList;
    const int fd = memfd_create("allow_list", MFD_CLOEXEC);
    if (fd < 0 ||
        (pwrite(fd, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size())))
        return fd;
    close(fd);
    return -1;
}

const std::set<std::string> &registeredActions() {
    return device.registrations.actionIds();
}

Simulation::Simulation(const std::string &appId) {
    if (!standsBeforePlatform())
        throw std::logic_error("the test kit has no hold of the platform: link nelvo-testkit "
                               "before nelvo-host, and preload neither");
    device = {appId, std::nullopt, {}, {}, {}};
    host_sim_start();
    host_log_set_sink(keepLine, nullptr);
    host_sim_on_misuse(abortWith);
    setSdkVersion("1.0");
}

Simulation::~Simulation() {
    for (const std::string &warning : takeWarnings())
        std::fprintf(stderr, "warning: %s; nothing was sent\n", warning.c_str());
    host_log_set_sink(nullptr, nullptr);
    host_sim_on_misuse(nullptr);
    host_sim_set_manifest(nullptr);
    device = {};
}

void Simulation::setManifest(const std::string &xml) {
    host_sim_set_manifest(xml.c_str());
}

void Simulation::setSdkVersion(const std::string &version) {
    setManifest("<manifest><ui-application appid=\"" + device.appId + "\"><metadata key=\"" +
                SDK_VERSION_KEY + "\" value=\"" + version + "\"/></ui-application></manifest>");
}

void Simulation::setAllowList(const std::string &content) {
    device.allowList = content;
}

void Simulation::removeAllowList() {
    device.allowList.reset();
}

void Simulation::advance(double seconds) {
    host_sim_advance(seconds);
}

const std::vector<LogLine> &Simulation::log() const {
    return device.log;
}

void Simulation::clearLog() {
    device.log.clear();
}

int Simulation::countLog(log_priority priority, const std::string &function,
                         const std::string &message) const {
    return static_cast<int>(
        std::count_if(device.log.begin(), device.log.end(), [&](const LogLine &line) {
            return line.priority == priority && line.function == function &&
                   line.message == message;
        }));
}

std::vector<std::string> Simulation::logTexts(log_priority atLeast) const {
    std::vector<std::string> texts;
    for (const LogLine &line : device.log)
        if (line.priority >= atLeast && line.tag == LIBRARY)
            texts.push_back(line.summary());
    return texts;
}

void Simulation::note(const std::string &event) {
    device.log.push_back({DLOG_DEBUG, NOTE, "", event, event});
}

std::vector<std::string> Simulation::transcript() const {
    static const std::regex address("0x[0-9a-f]+");
    std::vector<std::string> lines;
    for (const LogLine &line : device.log)
        if (line.tag == NOTE || !line.function.empty())
            lines.push_back(line.tag == NOTE ? line.text
                                             : std::regex_replace(line.summary(), address, "*"));
    return lines;
}

std::vector<std::string> Simulation::takeWarnings() {
    return device.completions.take();
}

} // namespace nelvo::testkit
