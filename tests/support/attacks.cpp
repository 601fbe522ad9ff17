// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdint>
#include <utility>

#include <sys/resource.h>
#include <unistd.h>

#include "attack.h"
#include "wire.h"

namespace nelvo::testkit {
namespace {

using namespace wire;

// Of docs/host-platform.md, each of which an attack meets.
constexpr std::uint32_t FRAME_LIMIT = 16 << 20;
constexpr std::size_t QUEUE_LIMIT = 32 << 20;
constexpr int INCOMPLETE_LIMIT = 64;
constexpr double HANDSHAKE_SECONDS = 5;
constexpr unsigned CONNECTION_LIMIT = 4096;
constexpr unsigned SPARE_DESCRIPTORS = 32;

constexpr int SEND = 4;
constexpr char TEXT = 1, TEXTS = 2, BYTES = 3;

// For the name of a row.
std::string shown(std::string text) {
    const auto isOdd = [](char byte) { return byte < ' ' || byte > '~'; };
    std::replace_if(text.begin(), text.end(), isOdd, '?');
    return std::to_string(text.size()) + " bytes \"" + text.substr(0, 20) + "\"";
}

std::string request(const std::vector<std::string> &entries) {
    return method(SEND, bundle(entries));
}

std::string setCb() {
    return method(2, number(1) + number(1) + std::string(1, '\0'));
}

std::string action(const std::string &id, const std::string &params = "") {
    return request({entry(TEXT, "actionId", text(id)), entry(TEXT, "actionParams", text(params))});
}

// --- frames --------------------------------------------------------------------------------------

void addLengths(std::vector<AttackRow> &rows) {
    for (const std::uint32_t length : {0U, 1U, FRAME_LIMIT, FRAME_LIMIT + 1, 1U << 31, ~0U}) {
        const std::string header = number(length), name = "length " + std::to_string(length);
        rows.push_back({name + " before the hello", [=](Attack &attack) {
                            RawSocket &socket = attack.open(header);
                            if (length == 1)
                                attack.say(socket, "x");
                            attack.mustEnd(socket);
                        }});
        rows.push_back({name + " on main", [=](Attack &attack) {
                            RawSocket &socket = attack.connect();
                            attack.say(socket, header);
                            if (length > 0 && length <= FRAME_LIMIT) {
                                attack.mustStay(socket);
                                attack.say(socket, std::string(length, 'x'));
                            }
                            attack.mustEnd(socket);
                        }});
        rows.push_back({name + " on callback", [=](Attack &attack) {
                            RawSocket &socket = attack.connect();
                            attack.say(attack.sockets[attack.sockets.size() - 2], header);
                            attack.mustEnd(socket);
                        }});
    }
    rows.push_back({"memory for frames that do not come", [](Attack &attack) {
                        const long before = attack.target.memory();
                        for (int i = 0; i < 40; ++i)
                            attack.say(attack.connect(), number(FRAME_LIMIT) + "only this");
                        attack.mustServe();
                        attack.must(attack.target.memory() - before < 100'000, "it is reserved");
                    }});
}

void sayByteByByte(Attack &attack, RawSocket &socket, const std::string &bytes) {
    for (const char byte : bytes) {
        attack.say(socket, {byte});
        attack.target.pass(1);
    }
}

void addSlowOnes(std::vector<AttackRow> &rows) {
    rows.push_back({"a hello with a byte a second",
                    [](Attack &attack) {
                        RawSocket &socket = attack.open();
                        sayByteByByte(attack, socket, hello(0, freshToken()).substr(0, 4));
                        attack.mustStay(socket);
                        attack.target.pass(HANDSHAKE_SECONDS - 4);
                        attack.mustEnd(socket);
                    },
                    AttackRow::LOCAL});
    rows.push_back({"a request with a byte a second",
                    [](Attack &attack) {
                        RawSocket &socket = attack.connect();
                        attack.say(socket, setCb());
                        sayByteByByte(attack, socket, action("greet", "Mallory"));
                        attack.mustHear(attack.sockets[0], "Hello, Mallory!");
                    },
                    AttackRow::LOCAL});
    for (const char kind : {'\0', '\1'})
        rows.push_back({std::string("no ") + (kind == 0 ? "callback" : "main") + " channel",
                        [=](Attack &attack) {
                            const std::string more = kind == 0 ? action("greet") : "";
                            RawSocket &socket = attack.open(hello(kind, freshToken()) + more);
                            attack.mustStay(socket);
                            attack.target.pass(HANDSHAKE_SECONDS);
                            attack.mustEnd(socket);
                        },
                        AttackRow::LOCAL});
}

// --- numbers -------------------------------------------------------------------------------------

rlimit descriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit;
}

void silentOnes(Attack &attack) {
    const rlim_t count = std::min<rlim_t>(3000, descriptorLimit().rlim_cur / 2);
    for (rlim_t i = 0; i < count; ++i) {
        attack.open();
        if (i % 500 == 0)
            attack.mustServe();
    }
    attack.mustServe();
    const auto isOpen = [](RawSocket &socket) { return !socket.hasEnded(); };
    auto &all = attack.sockets;
    const auto open = [&] { return std::count_if(all.begin(), all.end(), isOpen); };
    attack.must(attack.target.until([&] { return open() <= INCOMPLETE_LIMIT; }), "too many stay");
    attack.must(open() == INCOMPLETE_LIMIT && isOpen(all.back()), "the oldest ones do not go");
}

// As many connections as the application takes. It must keep what it needs for itself.
void manyConnections(Attack &attack) {
    unsigned taken = 0;
    while (taken <= CONNECTION_LIMIT && !attack.connect().hasEnded())
        ++taken;
    const bool hasRoom = descriptorLimit().rlim_cur > 4 * CONNECTION_LIMIT + 2 * SPARE_DESCRIPTORS;
    attack.must(taken == CONNECTION_LIMIT - 1 || (!hasRoom && taken < CONNECTION_LIMIT),
                "it takes " + std::to_string(taken) + " connections beside the honest one");
}

// The attacker is not on the allow list, and takes all descriptors so that it can't be read.
void descriptors(Attack &attack) {
    attack.local().device().setAllowList("demo.client\n");
    RawSocket &stranger = attack.connect();
    for (int i = 0; i < 200; ++i)
        attack.sockets.emplace_back(attack.target.path);
    const int firstFree = dup(0);
    close(firstFree);
    rlimit limit = descriptorLimit();
    const rlim_t before =
        std::exchange(limit.rlim_cur, static_cast<rlim_t>(firstFree) + SPARE_DESCRIPTORS + 8);
    setrlimit(RLIMIT_NOFILE, &limit);
    attack.target.pass(0);
    attack.must(attack.sockets.back().hasEnded(), "the last one is taken");
    const int calls = attack.local().calls;
    attack.say(stranger, action("greet"));
    attack.target.pass(0);
    attack.must(attack.local().calls == calls, "the allow list can't be opened");
    attack.mustServe();
    limit.rlim_cur = before;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void fewDescriptors(Attack &attack) {
    while (attack.sockets.size() < 4 * EXAMPLE_DESCRIPTORS && !attack.connect().hasEnded()) {
    }
    attack.must(attack.sockets.size() < 2 * EXAMPLE_DESCRIPTORS, "it takes too many");
}

void burst(Attack &attack) {
    RawSocket &socket = attack.connect();
    attack.say(socket, setCb());
    std::string requests;
    for (int i = 0; i < 1000; ++i)
        requests += action("greet");
    for (int i = 0; i < 100; ++i) {
        attack.say(socket, requests);
        attack.mustServe();
    }
    attack.mustStay(socket);
}

void neverReads(Attack &attack) {
    RawSocket &socket = attack.connect();
    attack.say(socket, setCb());
    for (std::size_t mebibytes = 0; mebibytes < (QUEUE_LIMIT >> 20); ++mebibytes)
        socket.say(action("flood")), attack.target.pass(0);
    attack.must(!socket.hasEnded(), "it ends before its queue is full");
    socket.say(action("flood"));
    attack.target.pass(0);
    attack.mustEnd(socket);
}

void addNumbers(std::vector<AttackRow> &rows) {
    rows.push_back({"3000 silent connections", silentOnes, AttackRow::BOTH, "error"});
    rows.push_back({"more connections than are taken", manyConnections, AttackRow::LOCAL});
    rows.push_back({"all descriptors and the allow list", descriptors, AttackRow::LOCAL});
    rows.push_back({"all descriptors of the example", fewDescriptors, AttackRow::EXAMPLE});
    rows.push_back({"a burst of 100000 requests", burst, AttackRow::EXAMPLE, "error"});
    rows.push_back({"answers that are never read", neverReads, AttackRow::LOCAL});
}

// --- names ---------------------------------------------------------------------------------------

void addNames(std::vector<AttackRow> &rows) {
    const std::string names[] = {"",
                                 ".",
                                 "..",
                                 "../a",
                                 "a/b",
                                 "a..b",
                                 "/",
                                 "-a",
                                 ".a",
                                 "a\nb",
                                 "a b",
                                 "\xff",
                                 "%n%s",
                                 "a:b",
                                 "\x1b[2J",
                                 std::string("a\0b", 3),
                                 std::string(128, 'a'),
                                 std::string(255, 'a')};
    for (const std::string &name : names)
        rows.push_back({"app id of " + shown(name), [=](Attack &attack) {
                            attack.mustEnd(attack.open(hello(0, freshToken(), name)));
                            attack.mustEnd(attack.open(hello(1, freshToken(), name)));
                        }});
    rows.push_back({"the longest app id", [](Attack &attack) {
                        attack.mustStay(attack.connect(std::string(127, 'a')));
                    }});
    rows.push_back({"the honest client's app id", [](Attack &attack) {
                        attack.connect("demo.client");
                        attack.connect("demo.client").endSpeech();
                    }});
}

// --- parcels -------------------------------------------------------------------------------------

void addParcels(std::vector<AttackRow> &rows) {
    for (const int id : {0, 1, 5, 255, -1, 1 << 30, INT32_MIN, INT32_MAX})
        rows.push_back({"method " + std::to_string(id), [=](Attack &attack) {
                            RawSocket &socket = attack.connect();
                            attack.say(socket, method(id, bundle({})));
                            attack.mustEnd(socket);
                        }});
    const std::string good = entry(TEXT, "actionId", text("greet"));
    const std::string zero(1, '\0'), many = number(~0U);
    const std::pair<const char *, std::string> bundles[] = {
        {"nothing", ""},
        {"no entry", bundle({})},
        {"a text without its zero", bundle({entry(TEXT, "actionId", sized("greet"))})},
        {"a text with a zero inside",
         bundle({entry(TEXT, "actionId", sized("a" + zero + "b" + zero))})},
        {"a text of no bytes", bundle({entry(TEXT, "actionId", sized(""))})},
        {"a text that never ends", bundle({entry(TEXT, "actionId", many + "greet")})},
        {"a key without its zero", bundle({TEXT + sized("actionId") + text("greet")})},
        {"an empty key", bundle({good, entry(TEXT, "", text("greet"))})},
        {"a key twice", bundle({good, good})},
        {"type 0", bundle({good, entry(0, "k", text("v"))})},
        {"type 4", bundle({good, entry(4, "k", text("v"))})},
        {"type 255", bundle({good, entry('\xff', "k", text("v"))})},
        {"no bytes", bundle({good, entry(BYTES, "k", sized(""))})},
        {"a request id of 7 bytes", bundle({good, entry(BYTES, "requestId", sized("1234567"))})},
        {"a request id that is a text", bundle({good, entry(TEXT, "requestId", text("1234567"))})},
        {"an action id of bytes", bundle({entry(BYTES, "actionId", sized("greet" + zero))})},
        {"an action id of texts", bundle({entry(TEXTS, "actionId", number(1) + text("greet"))})},
        {"texts without number", bundle({good, entry(TEXTS, "k", many)})},
        {"entries without number", sized(many + good)},
        {"fewer entries than it says", sized(number(2) + good)},
        {"more than it says", sized(number(1) + good + good)},
        {"more than there is", number(1 << 20) + number(1) + good},
    };
    for (const auto &[name, bytes] : bundles)
        rows.push_back({std::string("bundle: ") + name, [bytes = bytes](Attack &attack) {
                            RawSocket &socket = attack.connect();
                            attack.say(socket, setCb() + method(SEND, bytes));
                            attack.say(socket, action("greet", "Mallory"));
                            attack.mustHear(attack.sockets[0], "Hello, Mallory!");
                            const std::string &heard = attack.sockets[0].heard();
                            attack.must(heard.find("world") == std::string::npos,
                                        "it is carried out");
                        }});
    rows.push_back({"bundle: 100000 keys", [](Attack &attack) {
                        std::vector<std::string> entries{entry(TEXT, "actionId", text("greet"))};
                        for (int i = 0; i < 100'000; ++i)
                            entries.push_back(entry(TEXT, "k" + std::to_string(i), text("v")));
                        attack.say(attack.connect(), setCb() + request(entries));
                        attack.mustHear(attack.sockets[0], "Hello, world!");
                    }});
}

// --- texts ---------------------------------------------------------------------------------------

void addTexts(std::vector<AttackRow> &rows) {
    const std::string texts[] = {"%n%n%s%s%p",
                                 "\nE FORGED: line",
                                 "\r\x1b[2J\x07\x9b",
                                 "\xff\xc0\x80",
                                 std::string(100'000, 'x'),
                                 std::string(10'000, '\n'),
                                 "",
                                 "../../etc"};
    for (const std::string &value : texts)
        rows.push_back({"text of " + shown(value), [=](Attack &attack) {
                            RawSocket &socket = attack.connect();
                            attack.say(socket, setCb() + action(value) + action("greet", value));
                            attack.mustHear(attack.sockets[0], "Hello, " + value.substr(0, 50));
                        }});
}

} // namespace

std::vector<AttackRow> attacks() {
    std::vector<AttackRow> rows;
    addLengths(rows);
    addSlowOnes(rows);
    addNumbers(rows);
    addNames(rows);
    addParcels(rows);
    addTexts(rows);
    return rows;
}

} // namespace nelvo::testkit
