// SPDX-License-Identifier: Apache-2.0
// `soak [REQUESTS [PLAYER]]`: sends so many requests to an application, a million unless given, from five
// honest clients while three hostile ones do what they can: garbage, never reading, vanishing, overtaking.
// First over sockets, each client in a process of its own; then ten times as many in virtual time, all in
// one process. Then it watches the main loop of the example player, when that is named.
//
// Everything held when each honest request was answered or overtaken as the application says, once; when
// memory, blocks, descriptors, timers and handles are back where they were after the first tenth whenever
// the hostile clients have gone; and when they are back at the start in the end.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <numeric>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <Ecore.h>
#include <bundle.h>
#include <host/sim.h>
#include <nelvo.h>

#include "allocation_faults.h"
#include "child.h"
#include "client/message_proxy.h"
#include "platform_faults.h"
#include "raw_client.h"

namespace nelvo::soak {
namespace {

using testkit::Child;
using testkit::liveBlocks;
using testkit::liveHandles;
using testkit::NO_HANDLES;
using testkit::RawSocket;

constexpr std::size_t HONEST = 5;
constexpr std::size_t HOSTILE = 3;
constexpr const char *APP = "demo.app";

// What becomes of a request. The application knows: it sees the order in which requests come.
enum Fate : std::uint8_t { UNKNOWN, ANSWERED, OVERTAKEN };

struct Entry {
    std::atomic<std::uint8_t> fate;    // set by the application
    std::atomic<std::uint8_t> answers; // counted by the client
};

// How much the application holds at a moment.
struct Level {
    long residentKiB, blocks, timers, descriptors;
    char handles[80];
};

// What the processes of a soak share; in virtual time they are one. All zero at the start.
struct Ledger {
    std::size_t requests; // of the honest clients; request i is client i % HONEST's
    bool isVirtual;
    std::atomic<std::uint64_t> limit[HONEST]; // how many each of them may have sent by now
    std::atomic<std::uint64_t> done[HONEST];  // how many of them have met their fate
    std::atomic<std::uint64_t>
        stateRequest; // the pending one of client 0, which asks for the state
    std::atomic<std::uint64_t> timedOut, wrong;
    std::atomic<std::uint64_t> acts[HOSTILE];
    std::atomic<std::int64_t> watchMilliseconds; // 0: it has not answered yet
    std::atomic<bool> calm;                      // the hostile clients are to go,
    std::atomic<bool> gone[HOSTILE];
    std::atomic<bool> stop;
    std::atomic<int> asked, told; // for the level: it is as of question `told`
    Level level;
    Level start, end;           // before the library's start and after its end
    Level afterTenth, farthest; // after the first tenth, and the one that differs most from it
    Entry *entries;             // one per request

    template <std::size_t COUNT>
    static std::uint64_t sum(const std::atomic<std::uint64_t> (&values)[COUNT]) {
        return std::accumulate(std::begin(values), std::end(values), std::uint64_t{0});
    }
    std::uint64_t finished() const { return sum(done); }
};

// In memory that child processes share.
Ledger &makeLedger(std::size_t requests, bool isVirtual);

Ledger &makeLedger(std::size_t requests, bool isVirtual) {
    const std::size_t size = sizeof(Ledger) + requests * sizeof(Entry);
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        throw std::bad_alloc();
    auto *ledger = static_cast<Ledger *>(memory);
    ledger->requests = requests;
    ledger->isVirtual = isVirtual;
    ledger->entries = reinterpret_cast<Entry *>(ledger + 1);
    return *ledger;
}

// A table of figures, printed line by line; remembers whether each was as it must be.
class Report {
public:
    explicit Report(const std::string &heading) { std::printf("%s\n", heading.c_str()); }

    void line(const char *what, const std::string &figure, bool holds = true) {
        std::printf("  %-44s %10s%s\n", what, figure.c_str(), holds ? "" : "  WRONG");
        _holds = _holds && holds;
    }
    void line(const char *what, unsigned long long figure, bool holds = true) {
        line(what, std::to_string(figure), holds);
    }
    bool holds() const { return _holds; }

private:
    bool _holds = true;
};

// The application of a soak: completes most requests at once, some a little later and, in virtual
// time, some never, and enters in the ledger what must become of each honest one.
class Application {
public:
    explicit Application(Ledger &ledger);

    void start(); // the library, and its callbacks
    void stop();
    void tellLevel(); // when it has been asked for

    // Runs in a process of its own, until it is told to stop.
    static int run(Ledger &ledger);

private:
    static void actionCb(void *handler, bundle *request, void *data);
    static void fillCb(void *handler, bundle *request, void *data);
    static void stateCb(void *handler, void *data);
    static Eina_Bool settleCb(void *data);
    static Eina_Bool tellCb(void *data);

    void called(void *handler, std::uint64_t id, bool isState);
    void overtake();
    void complete();
    void meet(Fate fate);

    Ledger &_ledger;
    // The request that is not settled; no timer: there is none.
    Ecore_Timer *_settleTimer = nullptr;
    void *_handler = nullptr;
    std::uint64_t _id = 0;
    bool _isState = false;
    bool _isLeft = false; // to the library's watch
};

constexpr double LATER = 0.0005;
constexpr double JUST_BEFORE_THE_WATCH = 30 - 1e-6; // in virtual time nothing comes in between
constexpr double TELL_SECONDS = 0.01;
constexpr std::size_t FILL_BYTES = std::size_t{128} << 10;

long residentKiB() {
    char line[256];
    long size = -1;
    FILE *file = std::fopen("/proc/self/smaps_rollup", "r"); // exact, where statm is not
    while (file && size < 0 && std::fgets(line, sizeof line, file))
        std::sscanf(line, "Rss: %ld", &size);
    if (file)
        std::fclose(file);
    return size;
}

long openDescriptors() {
    long count = -1; // its own
    DIR *folder = opendir("/proc/self/fd");
    while (folder && readdir(folder))
        ++count;
    if (folder)
        closedir(folder);
    return count;
}

Level levelNow() {
    malloc_trim(0); // what is free is not held
    Level level{residentKiB(), liveBlocks(), host_sim_timer_count(), openDescriptors(), {}};
    std::snprintf(level.handles, sizeof level.handles, "%s", liveHandles().c_str());
    return level;
}

Application::Application(Ledger &ledger) : _ledger(ledger) {
    for (std::uint64_t i = 0; i < ledger.requests; ++i)
        (void)ledger.entries[i].fate.load(); // so that its pages are resident from the start
    ledger.start = levelNow();
}

void Application::start() {
    const bool started = nelvo_initialize() == NELVO_ERROR_NONE &&
                         nelvo_set_action_execution_cb("work", actionCb, this) == 0 &&
                         nelvo_set_action_execution_cb("fill", fillCb, this) == 0 &&
                         nelvo_set_app_state_request_cb(stateCb, this) == 0;
    _ledger.wrong += started ? 0 : 1;
}

void Application::stop() {
    nelvo_deinitialize();
    _ledger.end = levelNow();
}

void Application::tellLevel() {
    const int question = _ledger.asked;
    if (question == _ledger.told)
        return;
    _ledger.level = levelNow();
    _ledger.told = question;
}

Eina_Bool Application::tellCb(void *data) {
    auto *self = static_cast<Application *>(data);
    self->tellLevel();
    if (self->_ledger.stop)
        ecore_main_loop_quit();
    return self->_ledger.stop ? ECORE_CALLBACK_CANCEL : ECORE_CALLBACK_RENEW;
}

int Application::run(Ledger &ledger) {
    ecore_init();
    Application application(ledger);
    application.start();
    ecore_timer_add(TELL_SECONDS, tellCb, &application);
    ecore_main_loop_begin();
    application.stop();
    ecore_shutdown();
    return 0;
}

void Application::actionCb(void *handler, bundle *request, void *data) {
    void *bytes = nullptr;
    std::size_t size = 0;
    std::uint64_t id = ~std::uint64_t{0};
    if (bundle_get_byte(request, "requestId", &bytes, &size) == BUNDLE_ERROR_NONE)
        std::memcpy(&id, bytes, sizeof id); // the library lets no other size in
    static_cast<Application *>(data)->called(handler, id, false);
}

void Application::fillCb(void *handler, bundle *, void *data) {
    static const std::string fill(FILL_BYTES, '*');
    auto *self = static_cast<Application *>(data);
    self->overtake();
    nelvo_complete_action_execution(handler, fill.c_str());
}

void Application::stateCb(void *handler, void *data) {
    auto *self = static_cast<Application *>(data);
    self->called(handler, self->_ledger.stateRequest, true);
}

void Application::overtake() {
    if (_settleTimer) {
        ecore_timer_del(_settleTimer);
        meet(OVERTAKEN);
    }
    _settleTimer = nullptr;
}

// The ids of hostile clients are beyond the ledger.
void Application::called(void *handler, std::uint64_t id, bool isState) {
    overtake();
    _handler = handler;
    _id = id;
    _isState = isState;
    if (id >= _ledger.requests) {
        nelvo_complete_action_execution(handler, "");
        return;
    }
    const std::uint64_t round = id / HONEST % 8;
    _isLeft = round == 7 && _ledger.isVirtual;
    if (round < 5)
        complete();
    else
        _settleTimer = ecore_timer_add(_isLeft ? JUST_BEFORE_THE_WATCH : LATER, settleCb, this);
}

// A request that does not reach a callback may have overtaken ours.
Eina_Bool Application::settleCb(void *data) {
    auto *self = static_cast<Application *>(data);
    self->_settleTimer = nullptr;
    char *name = nullptr;
    if (nelvo_get_action_name(self->_handler, &name) != NELVO_ERROR_NONE) {
        self->meet(OVERTAKEN);
    } else if (self->_isLeft) {
        ++self->_ledger.timedOut;
        self->meet(ANSWERED);
    } else {
        self->complete();
    }
    std::free(name);
    return ECORE_CALLBACK_CANCEL;
}

void Application::complete() {
    const auto finish =
        _isState ? nelvo_complete_app_state_request : nelvo_complete_action_execution;
    if (finish(_handler, std::to_string(_id).c_str()) != NELVO_ERROR_NONE)
        ++_ledger.wrong;
    meet(ANSWERED);
}

void Application::meet(Fate fate) {
    if (_ledger.entries[_id].fate.exchange(fate) != UNKNOWN)
        ++_ledger.wrong;
}

// A client of a soak. Does what there is to do on each turn; the loop has to run in between.
class Client {
public:
    Client(Ledger &ledger, std::string id) : _ledger(ledger), _id(std::move(id)) {}
    virtual ~Client() = default;

    virtual bool turn() = 0; // false: there was nothing to do

    // Runs in a process of its own, until it is told to stop.
    int run();

protected:
    bool join(); // connects and registers, a step a turn; true once that is done
    void leave() { _proxy.reset(); }
    virtual void answered(const client::Answer &) {}

    Ledger &_ledger;
    std::unique_ptr<client::MessageProxy> _proxy;

private:
    const std::string _id;
    bool _connected = false;
    bool _registered = false;
    bool _ended = false;
};

// Sends what it may, with several requests under way, and enters the answers in the ledger.
class HonestClient : public Client {
public:
    HonestClient(Ledger &ledger, std::size_t number);
    bool turn() override;

private:
    void answered(const client::Answer &answer) override;

    const std::size_t _number;
    std::uint64_t _sent = 0;
};

class HostileClient : public Client {
public:
    enum Kind { GARBLES, READS_NOTHING, VANISHES };

    HostileClient(Ledger &ledger, std::size_t number);
    bool turn() override;

private:
    void act();
    void garble();
    void sendRawGarbage();
    void readNothing();
    void vanish();
    void request(const char *actionId);
    unsigned below(unsigned limit) { return static_cast<unsigned>(_random() % limit); }

    const std::size_t _number;
    const Kind _kind;
    std::uint64_t _nextAct = 0; // when so many requests of the honest ones are finished
    std::optional<RawSocket> _rawSocket;
    std::mt19937 _random; // the same acts in every run
};

constexpr std::uint64_t WINDOW = 64; // requests under way
constexpr useconds_t PAUSE = 300;    // microseconds, of a client that has nothing to do
constexpr std::uint64_t EVERY[] = {50, 2000, 20}; // finished requests between two acts of each kind
constexpr int UNREAD = 300;                       // answers: more than may be queued for a client

int Client::run() {
    ecore_init();
    while (!_ledger.stop) {
        const bool busy = turn();
        ecore_main_loop_iterate();
        if (!busy)
            usleep(PAUSE);
    }
    leave();
    return 0;
}

bool Client::join() {
    if (_ended)
        leave();
    if (!_proxy) {
        _proxy = std::make_unique<client::MessageProxy>();
        _connected = _registered = _ended = false;
        host_sim_set_sender(_proxy->handle(), _id.c_str());
        _proxy->events.connected = [this] { _connected = true; };
        _proxy->events.rejected = _proxy->events.disconnected = [this] { _ended = true; };
        _proxy->events.answered = [this](const client::Answer &answer) { answered(answer); };
        _proxy->events.malformed = [this](const char *) { ++_ledger.wrong; };
        if (_proxy->connect(APP) != RPC_PORT_ERROR_NONE)
            leave(); // it has not begun to listen
    } else if (_connected && !_registered) {
        _registered = _proxy->setCb().ok();
    }
    return _registered && !_ended;
}

HonestClient::HonestClient(Ledger &ledger, std::size_t number)
    : Client(ledger, "honest." + std::to_string(number)), _number(number) {}

bool HonestClient::turn() {
    if (!join())
        return true;
    std::atomic<std::uint64_t> &done = _ledger.done[_number];
    const auto isDone = [&](std::uint64_t nth) {
        const Entry &entry = _ledger.entries[nth * HONEST + _number];
        return entry.fate == OVERTAKEN || (entry.fate == ANSWERED && entry.answers > 0);
    };
    while (done < _sent && isDone(done))
        ++done;
    const bool asksState = _number == 0; // one at a time: the state's callback is not told the id
    bool busy = false;
    for (; _sent < _ledger.limit[_number] && _sent - done < (asksState ? 1 : WINDOW); ++_sent) {
        const std::uint64_t id = _sent * HONEST + _number;
        if (asksState)
            _ledger.stateRequest = id;
        const char *actionId = asksState ? client::STATE_ACTION_ID : "work";
        if (_proxy->send(client::makeRequest({actionId, id, {}, {}}).get()) != 0)
            ++_ledger.wrong;
        busy = true;
    }
    return busy;
}

void HonestClient::answered(const client::Answer &answer) {
    const client::Response &response = answer.response;
    const std::uint64_t id = response.requestId.value_or(_ledger.requests);
    if (id >= _ledger.requests || id % HONEST != _number) {
        ++_ledger.wrong;
        return;
    }
    ++_ledger.entries[id].answers;
    const std::string text = response.field(_number == 0 ? "appContext" : "result");
    if (text != (response.succeeded() ? std::to_string(id) : ""))
        ++_ledger.wrong;
}

HostileClient::HostileClient(Ledger &ledger, std::size_t number)
    : Client(ledger, "hostile." + std::to_string(number)), _number(number),
      // In virtual time the loop that reads is everybody's.
      _kind(number == 1 && ledger.isVirtual ? VANISHES : static_cast<Kind>(number)),
      _random(static_cast<unsigned>(number)) {}

bool HostileClient::turn() {
    if (_ledger.calm) {
        leave();
        _rawSocket.reset();
        _nextAct = 0;
        _ledger.gone[_number] = true;
        return false;
    }
    _ledger.gone[_number] = false;
    const std::uint64_t finished = _ledger.finished();
    if (finished < _nextAct)
        return false;
    if (!join()) {
        if (_kind == VANISHES && below(8) == 0)
            leave(); // before it is welcome
        return true;
    }
    _nextAct = finished + EVERY[_kind];
    ++_ledger.acts[_number];
    _kind == GARBLES ? garble() : _kind == VANISHES ? vanish() : readNothing();
    return true;
}

void HostileClient::request(const char *actionId) {
    const std::uint64_t id = _ledger.requests + below(1000);
    _proxy->send(client::makeRequest({actionId, id, {}, {}}).get());
}

// A parcel with any method and anything behind it, or a request with an id of the wrong size.
void HostileClient::garble() {
    if (!_ledger.isVirtual)
        sendRawGarbage();
    const client::BundlePtr broken(bundle_create());
    bundle_add_byte(broken.get(), "requestId", "1234567", 1 + below(7));
    bundle_add_str(broken.get(), "actionId", "work");
    rpc_port_h port = nullptr;
    rpc_port_parcel_h parcel = nullptr;
    rpc_port_proxy_get_port(_proxy->handle(), RPC_PORT_PORT_MAIN, &port);
    rpc_port_parcel_create(&parcel);
    const int methods[] = {-1, 0, 1, 2, 4, 5}; // not UnsetCB: whoever registers stays registered
    rpc_port_parcel_write_int32(parcel, methods[below(6)]);
    if (below(2) == 0)
        rpc_port_parcel_write_bundle(parcel, broken.get());
    else
        for (unsigned left = below(20); left > 0; --left)
            rpc_port_parcel_write_int32(parcel, static_cast<int>(_random()));
    rpc_port_parcel_send(parcel, port);
    rpc_port_parcel_destroy(parcel);
    leave();
}

// Stays connected until the next time.
void HostileClient::sendRawGarbage() {
    _rawSocket.emplace(std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/") + APP + ":message");
    unsigned words[16] = {below(100)}; // the length of the first frame
    for (std::size_t i = 1; i < 16; ++i)
        words[i] = static_cast<unsigned>(_random());
    _rawSocket->say({reinterpret_cast<const char *>(words), 4 + below(sizeof words - 4)});
}

// Asks for more than is ever queued for it, and stops running its loop until others have got on.
void HostileClient::readNothing() {
    for (int i = 0; i < UNREAD; ++i)
        request("fill");
    while (!_ledger.calm && !_ledger.stop && _ledger.finished() < _nextAct)
        usleep(PAUSE);
    leave();
}

// "nobody" is not registered: the request waits, overtaking others, until it is overtaken itself.
void HostileClient::vanish() {
    request(below(2) == 0 ? "work" : "nobody");
    if (below(2) == 0)
        leave();
}

using Clock = std::chrono::steady_clock;
using Pass = std::function<void()>; // lets everybody get on a little

constexpr std::size_t TENTHS = 10;
#ifdef __SANITIZE_ADDRESS__
constexpr long TOLERANCE_KIB = 1L << 30; // the sanitizer keeps what is freed
#else
constexpr long TOLERANCE_KIB = 256;
#endif
// The platform keeps a few large blocks, and a short first tenth may not have met them all.
constexpr std::uint64_t SHORT_RUN = 100'000;
constexpr long KEPT_KIB = 10 << 10;
// Each connection may keep two buffers, and a client that registers for the first time takes three.
constexpr long TOLERANCE_BLOCKS = 2 * HONEST + 3 * HOSTILE;
constexpr int PATIENT_QUESTIONS = 500;
constexpr int QUESTIONS = 20; // at first
constexpr std::chrono::seconds STUCK(20);
constexpr int PASSES_PER_WATCH = 10;
constexpr double PASS_SECONDS = 0.001;
constexpr double WATCH_SECONDS = 31;
constexpr const char *MANIFEST =
    "<manifest><ui-application appid='demo.app'><metadata value='1.0' "
    "key='http://developer.tizen.org/tizen/metadata/nelvo/sdk/version'/></ui-application>"
    "</manifest>";

void await(const Ledger &ledger, const Pass &pass, const std::function<bool()> &condition) {
    std::uint64_t finished = ledger.finished();
    for (auto since = Clock::now(); !condition(); finished = ledger.finished()) {
        pass();
        if (ledger.finished() != finished)
            since = Clock::now();
        if (Clock::now() - since > STUCK)
            throw std::runtime_error("nobody gets on any more");
    }
}

// Less is no fault: the platform may have let go of a large block that it kept.
long growth(const Level &level, const Level &from) {
    return level.residentKiB - from.residentKiB;
}

bool isBack(const Ledger &ledger, const Level &level) {
    const Level &wanted = ledger.afterTenth;
    const long kept = ledger.requests < SHORT_RUN ? KEPT_KIB : 0;
    return growth(level, wanted) <= TOLERANCE_KIB + kept &&
           std::labs(level.blocks - wanted.blocks) <= TOLERANCE_BLOCKS &&
           level.timers == wanted.timers && level.descriptors == wanted.descriptors &&
           std::strcmp(level.handles, wanted.handles) == 0;
}

// With nobody there but the honest clients: two for each, in virtual time its own ends as well; over
// sockets the one that listens, and its lock.
long descriptorsWanted(const Ledger &ledger) {
    const std::size_t more = ledger.isVirtual ? 4 * HONEST : 2 * HONEST + 2;
    return ledger.start.descriptors + static_cast<long>(more);
}

// Lets one tenth after the other pass. After each the hostile clients go, the honest ones wait, and
// the application says what it holds.
void playTenths(Ledger &ledger, const Pass &pass) {
    const auto allDone = [&] { return ledger.finished() == Ledger::sum(ledger.limit); };
    const auto allGone = [&] {
        return std::all_of(std::begin(ledger.gone), std::end(ledger.gone),
                           [](const auto &gone) { return gone.load(); });
    };
    const auto allActed = [&](std::uint64_t times) { // each of them, in each tenth
        return std::all_of(std::begin(ledger.acts), std::end(ledger.acts),
                           [&](const auto &acts) { return acts >= times; });
    };
    for (std::uint64_t tenth = 1; tenth <= TENTHS; ++tenth) {
        ledger.calm = false;
        for (std::size_t i = 0; i < HONEST; ++i)
            ledger.limit[i] = ledger.requests / HONEST * tenth / TENTHS - (i == 0 ? 1 : 0);
        await(ledger, pass, [&] { return allDone() && allActed(tenth); });
        ledger.calm = true;
        await(ledger, pass, allGone);
        ++ledger.limit[0]; // the last request is always of the same kind
        await(ledger, pass, allDone);

        const Level &wanted = ledger.afterTenth;
        for (int question = 1; question <= PATIENT_QUESTIONS; ++question) {
            ++ledger.asked;
            await(ledger, pass, [&] { return ledger.asked == ledger.told; });
            if (tenth == 1
                    ? question >= QUESTIONS && ledger.level.descriptors == descriptorsWanted(ledger)
                    : isBack(ledger, ledger.level))
                break;
        }
        if (tenth == 1)
            ledger.afterTenth = ledger.farthest = ledger.level;
        else if (!isBack(ledger, ledger.level) ||
                 (isBack(ledger, ledger.farthest) &&
                  growth(ledger.level, wanted) > growth(ledger.farthest, wanted)))
            ledger.farthest = ledger.level;
    }
}

void prepare() {
    setenv("NELVO_LOG", "silent", 1); // garbage makes for many lines
    unsetenv("NELVO_HOST_APP_ID");
    host_sim_set_manifest(MANIFEST);
}

int playVirtually(Ledger &ledger) {
    host_sim_start();
    prepare();
    ecore_init();
    Application application(ledger);
    application.start();
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < HONEST; ++i)
        clients.push_back(std::make_unique<HonestClient>(ledger, i));
    for (std::size_t i = 0; i < HOSTILE; ++i)
        clients.push_back(std::make_unique<HostileClient>(ledger, i));
    int passes = 0;
    playTenths(ledger, [&] {
        const std::uint64_t finished = ledger.finished();
        for (const auto &client : clients)
            client->turn();
        const bool watch = ++passes % PASSES_PER_WATCH == 0 || ledger.finished() == finished;
        host_sim_advance(watch ? WATCH_SECONDS : PASS_SECONDS);
        application.tellLevel();
    });
    clients.clear();
    host_sim_advance(0);
    application.stop();
    return 0;
}

// Eight clients and the application, each in a process of its own.
int playOverSockets(Ledger &ledger) {
    prepare();
    Child application([&] { return Application::run(ledger); }, Child::INHERITED);
    std::deque<Child> clients;
    for (std::size_t i = 0; i < HONEST; ++i)
        clients.emplace_back([&, i] { return HonestClient(ledger, i).run(); }, Child::INHERITED);
    for (std::size_t i = 0; i < HOSTILE; ++i)
        clients.emplace_back([&, i] { return HostileClient(ledger, i).run(); }, Child::INHERITED);
    playTenths(ledger, [] { usleep(1000); });
    ledger.stop = true;
    clients.clear();
    return application.wait();
}

std::string toText(const Level &level) {
    return std::to_string(level.residentKiB) + " KiB, " + std::to_string(level.blocks) +
           " blocks, " + std::to_string(level.timers) + " timers, " +
           std::to_string(level.descriptors) + " descriptors, " + level.handles;
}

bool report(const Ledger &ledger, const char *where, double seconds, bool played) {
    std::uint64_t answered = 0, overtaken = 0, lost = 0, twice = 0;
    for (std::uint64_t i = 0; i < ledger.requests; ++i) {
        const Entry &entry = ledger.entries[i];
        const int answers = entry.answers, wanted = entry.fate == ANSWERED ? 1 : 0;
        answered += entry.fate == ANSWERED;
        overtaken += entry.fate == OVERTAKEN;
        lost += entry.fate == UNKNOWN || answers < wanted;
        twice += answers > wanted;
    }
    Report report(where + (", " + std::to_string(std::lround(seconds))) + " s");
    report.line("requests of five honest clients", ledger.requests, played);
    report.line("  answered", answered, answered > 0);
    report.line("  of these by the library, after 30 s", ledger.timedOut);
    report.line("  overtaken", overtaken, overtaken > 0);
    report.line("  lost", lost, lost == 0);
    report.line("  answered twice, or though overtaken", twice, twice == 0);
    report.line("acts of three hostile clients", Ledger::sum(ledger.acts));
    report.line("wrong answers and return codes", ledger.wrong, ledger.wrong == 0);
    report.line("the application before it starts", toText(ledger.start));
    report.line("after the first tenth", toText(ledger.afterTenth),
                ledger.afterTenth.descriptors == descriptorsWanted(ledger));
    report.line("later, when that differed most", toText(ledger.farthest),
                isBack(ledger, ledger.farthest));
    report.line("after it has stopped", toText(ledger.end),
                std::strcmp(ledger.end.handles, NO_HANDLES) == 0 && ledger.end.timers == 0 &&
                    ledger.end.descriptors == ledger.start.descriptors);
    return report.holds();
}

bool play(std::size_t requests, bool isVirtual) {
    Ledger &ledger = makeLedger(requests / (HONEST * TENTHS) * HONEST * TENTHS, isVirtual);
    const auto start = Clock::now();
    Child worker([&] { return isVirtual ? playVirtually(ledger) : playOverSockets(ledger); },
                 Child::INHERITED);
    const bool played = worker.wait(std::chrono::hours(24)) == 0;
    const std::chrono::duration<double> time = Clock::now() - start;
    return report(ledger, isVirtual ? "In virtual time" : "Over sockets", time.count(), played);
}

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds TRACED(3);
constexpr seconds WATCH(30);
constexpr milliseconds WATCH_TOLERANCE(100);
constexpr seconds SETTLES(7); // incomplete connections are given up after 5 s
constexpr seconds IDLE(60);
constexpr std::uint64_t FLOOD = 1000; // more than the pace of any hostile client

// What the player may do once its loop runs: calls that can't block, and those told not to.
const std::regex ALLOWED(
    R"((epoll_wait|epoll_ctl|close|shutdown|getsockopt|prlimit64|brk|mmap|munmap|mremap|madvise)\(.*)"
    R"(|(rt_sig\w+|unlink|exit_group|newfstatat|fstat|getpid|getuid|geteuid)\(.*)"
    R"(|(accept4|socket)\(.*SOCK_NONBLOCK.*)"
    R"(|(recvfrom|recvmsg|sendmsg|sendto)\(.*MSG_DONTWAIT.*)"
    R"(|openat\(.*allow_list\.dat".*)"
    R"(|(read|lseek)\(\d+<(/.*/allow_list\.dat|anon_inode:\[signalfd\])>.*)"
    R"(|futex\(.*FUTEX_WAKE.*|(---|\+\+\+) .*)");

// Asks for what is never completed, and measures how long the library takes to say so.
class WatchedClient : public Client {
public:
    explicit WatchedClient(Ledger &ledger) : Client(ledger, "honest.watched") {}

    bool turn() override {
        if (join() && !_sent) {
            _since = Clock::now();
            _sent = _proxy->send(client::makeRequest({"record", 1, {}, {}}).get()) == 0;
        }
        return !_sent;
    }

private:
    void answered(const client::Answer &answer) override {
        const auto took = Clock::now() - _since;
        if (!answer.response.succeeded())
            _ledger.watchMilliseconds = std::chrono::duration_cast<milliseconds>(took).count();
    }

    Clock::time_point _since;
    bool _sent = false;
};

// Attacks the player until enough() or for so long.
template <typename Condition>
void flood(Ledger &ledger, seconds limit, Condition enough) {
    const auto attack = [&] { return HostileClient(ledger, 0).run(); };
    Child first(attack), second(attack);
    for (const auto end = Clock::now() + limit; Clock::now() < end && !enough();) {
        ledger.done[0] += FLOOD;
        std::this_thread::sleep_for(milliseconds(1));
    }
}

struct Calls {
    std::uint64_t all = 0;
    std::uint64_t blocking = 0;
};

// Of a log of strace: the calls from the loop's first wait on, and before that those that open
// sockets. Names the first one of each kind that may block.
Calls readCalls(const std::string &log) {
    std::ifstream file(log);
    std::set<std::string> named;
    Calls calls;
    bool inLoop = false;
    for (std::string line; std::getline(file, line);) {
        line.erase(0, line.find_first_not_of("0123456789 ")); // the process
        const std::string name = line.substr(0, line.find('('));
        inLoop = inLoop || name == "epoll_wait";
        if (!inLoop && name != "socket")
            continue;
        ++calls.all;
        if (std::regex_match(line, ALLOWED))
            continue;
        ++calls.blocking;
        if (named.insert(name).second)
            std::printf("  may block: %s\n", line.c_str());
    }
    return calls;
}

void traceCalls(const std::string &player, Report &report) {
    const std::string log = std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/calls");
    Ledger &ledger = makeLedger(0, false);
    // -D: the child is the player, strace a grandchild.
    Child traced("/usr/bin/strace", {"-D", "-f", "-y", "-o", log, player});
    flood(ledger, TRACED, [] { return false; });
    traced.signal(SIGTERM);
    const int exitCode = traced.wait();
    const Calls calls = readCalls(log);
    if (calls.all == 0) {
        report.line("system calls under attack", "not looked at: strace may not trace here");
        return;
    }
    report.line("acts of hostile clients while it is traced", ledger.acts[0], ledger.acts[0] > 0);
    report.line("system calls of the player meanwhile", calls.all,
                exitCode == 0 && calls.all > ledger.acts[0]);
    report.line("  that may block, but for the loop's wait", calls.blocking, calls.blocking == 0);
}

void awaitWatch(Report &report) {
    Ledger &ledger = makeLedger(0, false);
    Child watched([&] { return WatchedClient(ledger).run(); });
    flood(ledger, WATCH + seconds(5), [&] { return ledger.watchMilliseconds != 0; });
    const milliseconds took(ledger.watchMilliseconds);
    report.line("acts of hostile clients during the watch", ledger.acts[0], ledger.acts[0] > 0);
    report.line("  it answers after, ms", static_cast<unsigned long long>(took.count()),
                std::chrono::abs(took - WATCH) <= WATCH_TOLERANCE);
}

// How often the process has been given the processor; 0 when it does not run.
std::uint64_t timesRun(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    std::uint64_t times = 0, count = 0;
    for (std::string word; file >> word;)
        if (word.find("voluntary_ctxt_switches:") != std::string::npos && file >> count)
            times += count;
    return times;
}

void leaveAlone(pid_t player, Report &report) {
    std::this_thread::sleep_for(SETTLES);
    const std::uint64_t before = timesRun(player);
    std::this_thread::sleep_for(IDLE);
    report.line("wake-ups in 60 s, left alone", timesRun(player) - before,
                before > 0 && timesRun(player) == before);
}

bool keepsItsMainLoop(const std::string &player) {
    Report report("The player's main loop");
    setenv("NELVO_HOST_APP_ID", APP, 1);
    setenv("NELVO_LOG", "silent", 1); // or its log fills the pipe, which nobody reads meanwhile
    traceCalls(player, report);
    const Child untraced(player, {});
    awaitWatch(report);
    leaveAlone(untraced.pid(), report);
    return report.holds();
}
} // namespace
} // namespace nelvo::soak

int main(int argc, char **argv) {
    using namespace nelvo::soak;
    const std::size_t requests = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1000000;
    if (requests < 3000) {
        std::fprintf(stderr, "soak: a tenth of less than 3000 requests is no warm-up\n");
        return EXIT_FAILURE;
    }
    char folder[] = "soak-XXXXXX"; // relative: the path of a socket has little room
    if (!mkdtemp(folder) || setenv("NELVO_HOST_RUNTIME_DIR", folder, 1) != 0)
        return EXIT_FAILURE;
    bool holds = play(requests, false);
    holds = play(10 * requests, true) && holds;
    if (argc > 2)
        holds = keepsItsMainLoop(argv[2]) && holds;
    std::filesystem::remove_all(folder);
    std::printf("soak: %s\n", holds ? "everything held" : "see what is WRONG above");
    return holds ? EXIT_SUCCESS : EXIT_FAILURE;
}
