// SPDX-License-Identifier: Apache-2.0
// `soak [REQUESTS [PLAYER]]`: sends so many requests to an application, a million unless given,
// from five honest clients, while three hostile ones send garbage, never read, vanish and overtake.
// First over sockets, each client in a process of its own; then ten times as many in virtual time,
// all in one process. Then it watches the main loop of the example player, if one is named.
//
// Everything held if each honest request was answered or overtaken as the application says, once;
// if memory, blocks, descriptors, timers and handles are back where they were after the first tenth
// whenever the hostile clients have gone; and if they are back at the start in the end.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using testkit::Child;

constexpr std::size_t HONEST = 5;
constexpr std::size_t HOSTILE = 3;
constexpr std::size_t TENTHS = 10;
constexpr const char *APP = "demo.app";

// How much the application holds at a moment.
struct Level {
    long residentKiB, blocks, timers, descriptors;
    char handles[80];

    static Level now() {
        malloc_trim(0);                                // so that only what is in use counts
        std::ifstream file("/proc/self/smaps_rollup"); // exact, unlike statm
        long size = -1;
        for (std::string word; size < 0 && file >> word;)
            if (word == "Rss:")
                file >> size;
        file.close();
        namespace fs = std::filesystem;
        const auto descriptors = std::distance(fs::directory_iterator("/proc/self/fd"),
                                               fs::directory_iterator()) -
                                 1; // the iterator's own
        Level level{size, testkit::liveBlocks(), host_sim_timer_count(), descriptors, {}};
        testkit::liveHandles().copy(level.handles, sizeof level.handles - 1);
        return level;
    }
    std::string text() const {
        return std::to_string(residentKiB) + " KiB, " + std::to_string(blocks) + " blocks, " +
               std::to_string(timers) + " timers, " + std::to_string(descriptors) +
               " descriptors, " + handles;
    }
};

// What becomes of a request. The application knows: it sees the order in which requests come.
enum Fate : std::uint8_t { UNKNOWN, ANSWERED, OVERTAKEN };

struct Entry {
    std::atomic<std::uint8_t> fate;    // set by the application
    std::atomic<std::uint8_t> answers; // counted by the client
};

// What the processes of a soak share, in shared memory; in virtual time they are one process.
struct Ledger {
    std::size_t requests; // of the honest clients; request i is client i % HONEST's
    bool isVirtual;
    std::atomic<std::uint64_t> limit[HONEST]; // how many each of them may have sent by now
    std::atomic<std::uint64_t> done[HONEST];  // how many of them have met their fate
    std::atomic<std::uint64_t> stateRequest;  // client 0's pending one, which asks for the state
    std::atomic<std::uint64_t> timedOut, wrong;
    std::atomic<std::uint64_t> acts[HOSTILE];
    std::atomic<std::int64_t> watchMilliseconds; // 0: the library has not answered yet
    std::atomic<bool> calm;                      // the hostile clients are to go,
    std::atomic<bool> gone[HOSTILE];             // and have gone
    std::atomic<bool> stop;
    std::atomic<int> asked, told;   // for the level: it is as of question `told`
    Level level;                    // of the application, when it was last asked
    Level start, afterTenth, later; // later: of the last tenth, or of the first that differed
    Level end;                      // after the library's end
    Entry *entries;                 // one per request

    static Ledger &make(std::size_t requests, bool isVirtual) {
        void *memory = mmap(nullptr, sizeof(Ledger) + requests * sizeof(Entry),
                            PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        auto &ledger = *static_cast<Ledger *>(memory); // all zero
        ledger.requests = requests;
        ledger.isVirtual = isVirtual;
        ledger.entries = reinterpret_cast<Entry *>(&ledger + 1);
        return ledger;
    }
    template <typename Values>
    static std::uint64_t sum(const Values &values) {
        return std::accumulate(std::begin(values), std::end(values), std::uint64_t{0});
    }
    std::uint64_t finished() const { return sum(done); }
};

// Completes most requests at once, some a little later and, in virtual time, leaves some to the
// library's watch; enters in the ledger what must become of each honest one.
class Application {
public:
    explicit Application(Ledger &ledger) : _ledger(ledger) {
        for (std::uint64_t i = 0; i < ledger.requests; ++i)
            (void)ledger.entries[i].fate.load(); // so that its pages are resident from the start
        ledger.start = Level::now();
        const auto work = [](void *handler, bundle *request, void *data) {
            void *bytes = nullptr;
            std::size_t size = 0;
            std::uint64_t id = ~std::uint64_t{0};
            if (bundle_get_byte(request, "requestId", &bytes, &size) == BUNDLE_ERROR_NONE)
                std::memcpy(&id, bytes, sizeof id); // the library lets no other size in
            static_cast<Application *>(data)->called(handler, id, false);
        };
        const auto fill = [](void *handler, bundle *, void *data) {
            static const std::string text(128 << 10, '*');
            static_cast<Application *>(data)->overtake();
            nelvo_complete_action_execution(handler, text.c_str());
        };
        const auto state = [](void *handler, void *data) {
            auto *self = static_cast<Application *>(data);
            self->called(handler, self->_ledger.stateRequest, true);
        };
        const bool started = nelvo_initialize() == NELVO_ERROR_NONE &&
                             nelvo_set_action_execution_cb("work", work, this) == 0 &&
                             nelvo_set_action_execution_cb("fill", fill, this) == 0 &&
                             nelvo_set_app_state_request_cb(state, this) == 0;
        _ledger.wrong += started ? 0 : 1;
    }
    ~Application() {
        nelvo_deinitialize();
        _ledger.end = Level::now();
    }
    Application(const Application &) = delete;
    Application &operator=(const Application &) = delete;

    void tellLevel() { // if it has been asked for
        const int question = _ledger.asked;
        if (question == _ledger.told)
            return;
        _ledger.level = Level::now();
        _ledger.told = question;
    }

    // Runs in a process of its own, until it is told to stop.
    static int run(Ledger &ledger) {
        const auto tell = [](void *data) -> Eina_Bool {
            auto *self = static_cast<Application *>(data);
            self->tellLevel();
            if (self->_ledger.stop)
                ecore_main_loop_quit();
            return self->_ledger.stop ? ECORE_CALLBACK_CANCEL : ECORE_CALLBACK_RENEW;
        };
        ecore_init();
        {
            Application application(ledger);
            ecore_timer_add(0.01, tell, &application);
            ecore_main_loop_begin();
        }
        ecore_shutdown();
        return 0;
    }

private:
    static constexpr double LATER = 0.0005;
    static constexpr double JUST_BEFORE_THE_WATCH = 30 - 1e-6; // nothing comes in between

    void overtake() {
        if (_timer) {
            ecore_timer_del(_timer);
            meet(OVERTAKEN);
        }
        _timer = nullptr;
    }
    void called(void *handler, std::uint64_t id, bool isState) {
        overtake();
        _handler = handler;
        _id = id;
        _isState = isState;
        const std::uint64_t round = id / HONEST % 8;
        _isLeft = round == 7 && _ledger.isVirtual;
        if (id >= _ledger.requests) // a hostile client's
            nelvo_complete_action_execution(handler, "");
        else if (round < 5)
            complete();
        else
            _timer = ecore_timer_add(_isLeft ? JUST_BEFORE_THE_WATCH : LATER, settleCb, this);
    }
    // A request that reaches no callback may have overtaken this one.
    static Eina_Bool settleCb(void *data) {
        auto *self = static_cast<Application *>(data);
        self->_timer = nullptr;
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
    void complete() {
        const auto finish =
            _isState ? nelvo_complete_app_state_request : nelvo_complete_action_execution;
        _ledger.wrong += finish(_handler, std::to_string(_id).c_str()) == NELVO_ERROR_NONE ? 0 : 1;
        meet(ANSWERED);
    }
    void meet(Fate fate) { _ledger.wrong += _ledger.entries[_id].fate.exchange(fate) == 0 ? 0 : 1; }

    Ledger &_ledger;
    Ecore_Timer *_timer = nullptr; // null: no request is pending
    void *_handler = nullptr;      // of the latest request, like all that follows
    std::uint64_t _id = 0;
    bool _isState = false;
    bool _isLeft = false; // to the library's watch
};

// A client that does what there is to do on each turn; the loop has to run in between.
class Client {
public:
    Client(Ledger &ledger, std::string id) : _ledger(ledger), _id(std::move(id)) {}
    virtual ~Client() = default;
    virtual bool turn() = 0; // false: there was nothing to do

    // Runs in a process of its own, until it is told to stop.
    int run() {
        ecore_init();
        while (!_ledger.stop) {
            const bool busy = turn();
            ecore_main_loop_iterate();
            if (!busy)
                std::this_thread::sleep_for(PAUSE);
        }
        leave();
        return 0;
    }

protected:
    static constexpr auto PAUSE = 300us;

    bool join() { // connects and registers, a step a turn; true once that is done
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
                leave(); // the application does not listen yet
        } else if (_connected && !_registered) {
            _registered = _proxy->setCb().ok();
        }
        return _registered && !_ended;
    }
    void leave() { _proxy.reset(); }
    bool request(const char *actionId, std::uint64_t id) {
        return _proxy->send(client::makeRequest({actionId, id, {}, {}}).get()) == 0;
    }
    virtual void answered(const client::Answer &) {}

    Ledger &_ledger;
    std::unique_ptr<client::MessageProxy> _proxy;

private:
    const std::string _id;
    bool _connected = false, _registered = false, _ended = false;
};

// Sends as many as it may, several at a time, and enters the answers in the ledger.
class HonestClient : public Client {
public:
    HonestClient(Ledger &ledger, std::size_t number)
        : Client(ledger, "honest." + std::to_string(number)), _number(number) {}

    bool turn() override {
        if (!join())
            return true;
        std::atomic<std::uint64_t> &done = _ledger.done[_number];
        const auto isDone = [&](std::uint64_t nth) {
            const Entry &entry = _ledger.entries[nth * HONEST + _number];
            return entry.fate == OVERTAKEN || (entry.fate == ANSWERED && entry.answers > 0);
        };
        while (done < _sent && isDone(done))
            ++done;
        // States are asked for one at a time, because their callback is not told the id.
        const bool asksState = _number == 0;
        const std::uint64_t window = asksState ? 1 : 64, before = _sent;
        for (; _sent < _ledger.limit[_number] && _sent - done < window; ++_sent) {
            const std::uint64_t id = _sent * HONEST + _number;
            if (asksState)
                _ledger.stateRequest = id;
            _ledger.wrong += request(asksState ? client::STATE_ACTION_ID : "work", id) ? 0 : 1;
        }
        return _sent > before;
    }

private:
    void answered(const client::Answer &answer) override {
        const client::Response &response = answer.response;
        const std::uint64_t id = response.requestId.value_or(_ledger.requests);
        const bool isOurs = id < _ledger.requests && id % HONEST == _number;
        const std::string text = response.field(_number == 0 ? "appContext" : "result");
        if (isOurs)
            ++_ledger.entries[id].answers;
        if (!isOurs || text != (response.succeeded() ? std::to_string(id) : ""))
            ++_ledger.wrong;
    }

    const std::size_t _number;
    std::uint64_t _sent = 0;
};

class HostileClient : public Client {
public:
    HostileClient(Ledger &ledger, std::size_t number)
        : Client(ledger, "hostile." + std::to_string(number)), _number(number),
          // In virtual time, whoever stops reading would stop everybody's loop.
          _kind(number == 1 && ledger.isVirtual ? VANISHES : static_cast<Kind>(number)),
          _random(static_cast<unsigned>(number)) {}

    bool turn() override {
        _ledger.gone[_number] = _ledger.calm.load();
        if (_ledger.calm) {
            leave();
            _rawSocket.reset();
            _nextAct = 0;
            return false;
        }
        if (_ledger.finished() < _nextAct)
            return false;
        if (!join()) {
            if (_kind == VANISHES && below(8) == 0)
                leave(); // before the connection is there
            return true;
        }
        constexpr std::uint64_t EVERY[] = {50, 2000, 20}; // finished requests between two acts
        _nextAct = _ledger.finished() + EVERY[_kind];
        ++_ledger.acts[_number];
        _kind == GARBLES ? garble() : _kind == VANISHES ? vanish() : readNothing();
        return true;
    }

private:
    enum Kind { GARBLES, READS_NOTHING, VANISHES };

    unsigned below(unsigned limit) { return static_cast<unsigned>(_random() % limit); }
    void ask(const char *actionId) { request(actionId, _ledger.requests + below(1000)); }

    // A parcel with any method and anything behind it, or a request with an id of the wrong size.
    void garble() {
        if (!_ledger.isVirtual)
            sendRawGarbage();
        const client::BundlePtr broken(bundle_create());
        bundle_add_byte(broken.get(), "requestId", "1234567", 1 + below(7));
        bundle_add_str(broken.get(), "actionId", "work");
        rpc_port_h port = nullptr;
        rpc_port_parcel_h parcel = nullptr;
        rpc_port_proxy_get_port(_proxy->handle(), RPC_PORT_PORT_MAIN, &port);
        rpc_port_parcel_create(&parcel);
        const int methods[] = {-1, 0, 1, 2, 4, 5}; // not 3: whoever registers stays registered
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
    // On a socket that stays open until the next time.
    void sendRawGarbage() {
        _rawSocket.emplace(std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/") + APP +
                           ":message");
        std::string bytes = testkit::wire::number(below(100)); // the length of the first frame
        for (unsigned left = below(60); left > 0; --left)
            bytes += static_cast<char>(_random());
        _rawSocket->say(bytes);
    }
    // Asks for more than is ever queued for it, and stops running its loop for a while.
    void readNothing() {
        for (int i = 0; i < 300; ++i)
            ask("fill");
        while (!_ledger.calm && !_ledger.stop && _ledger.finished() < _nextAct)
            std::this_thread::sleep_for(PAUSE);
        leave();
    }
    // "nobody" is not registered: that request waits until another one overtakes it.
    void vanish() {
        ask(below(2) == 0 ? "work" : "nobody");
        if (below(2) == 0)
            leave();
    }

    const std::size_t _number;
    const Kind _kind;
    std::uint64_t _nextAct = 0; // once so many requests of the honest clients are finished
    std::optional<testkit::RawSocket> _rawSocket;
    std::mt19937 _random; // the same acts in every run
};

// Asks for what is never completed, and measures how long the library takes to say so.
class WatchedClient : public Client {
public:
    explicit WatchedClient(Ledger &ledger) : Client(ledger, "honest.watched") {}

    bool turn() override {
        if (join() && !_sent) {
            _since = Clock::now();
            _sent = request("record", 1);
        }
        return !_sent;
    }

private:
    void answered(const client::Answer &answer) override {
        if (!answer.response.succeeded())
            _ledger.watchMilliseconds = (Clock::now() - _since) / 1ms;
    }

    Clock::time_point _since;
    bool _sent = false;
};

using Pass = std::function<void()>; // lets everybody get on a little

void await(const Ledger &ledger, const Pass &pass, const std::function<bool()> &condition) {
    std::uint64_t finished = ledger.finished();
    for (auto since = Clock::now(); !condition(); finished = ledger.finished()) {
        pass();
        if (ledger.finished() != finished)
            since = Clock::now();
        if (Clock::now() - since > 20s)
            throw std::runtime_error("nobody gets on any more");
    }
}

// Less memory is no fault.
bool isBack(const Ledger &ledger, const Level &level) {
#ifdef __SANITIZE_ADDRESS__
    constexpr long TOLERANCE_KIB = 1L << 30; // the sanitizer keeps what is freed
#else
    constexpr long TOLERANCE_KIB = 256;
#endif
    // A short first tenth may not have met all the large blocks that the C library keeps.
    const long kept = ledger.requests < 100'000 ? 10 << 10 : 0;
    // A connection may keep two buffers; a client that registers for the first time takes three.
    constexpr long TOLERANCE_BLOCKS = 2 * HONEST + 3 * HOSTILE;
    const Level &wanted = ledger.afterTenth;
    return level.residentKiB - wanted.residentKiB <= TOLERANCE_KIB + kept &&
           std::labs(level.blocks - wanted.blocks) <= TOLERANCE_BLOCKS &&
           level.timers == wanted.timers && level.descriptors == wanted.descriptors &&
           std::strcmp(level.handles, wanted.handles) == 0;
}

// With the honest clients only: two for each, in virtual time the clients' own ends as well; over
// sockets the one that listens, and its lock.
long descriptorsWanted(const Ledger &ledger) {
    const std::size_t more = ledger.isVirtual ? 4 * HONEST : 2 * HONEST + 2;
    return ledger.start.descriptors + static_cast<long>(more);
}

// After each tenth the hostile clients go, the honest ones wait, and the application says what it
// holds.
void playTenths(Ledger &ledger, const Pass &pass) {
    constexpr int PATIENT_QUESTIONS = 500, FIRST_QUESTIONS = 20;
    const auto allDone = [&] { return ledger.finished() == Ledger::sum(ledger.limit); };
    const auto allGone = [&] { return Ledger::sum(ledger.gone) == HOSTILE; };
    for (std::uint64_t tenth = 1; tenth <= TENTHS; ++tenth) {
        const auto allActed = [&] {
            return *std::min_element(std::begin(ledger.acts), std::end(ledger.acts)) >= tenth;
        };
        ledger.calm = false;
        for (std::size_t i = 0; i < HONEST; ++i)
            ledger.limit[i] = ledger.requests / HONEST * tenth / TENTHS - (i == 0 ? 1 : 0);
        await(ledger, pass, [&] { return allDone() && allActed(); });
        ledger.calm = true;
        await(ledger, pass, allGone);
        ++ledger.limit[0]; // the last request is always of the same kind
        await(ledger, pass, allDone);

        const auto isCalm = [&](int question) {
            return tenth > 1 ? isBack(ledger, ledger.level)
                             : question >= FIRST_QUESTIONS &&
                                   ledger.level.descriptors == descriptorsWanted(ledger);
        };
        for (int question = 1; question <= PATIENT_QUESTIONS; ++question) {
            ++ledger.asked;
            await(ledger, pass, [&] { return ledger.asked == ledger.told; });
            if (isCalm(question))
                break;
        }
        if (tenth == 1)
            ledger.afterTenth = ledger.later = ledger.level;
        else if (isBack(ledger, ledger.later))
            ledger.later = ledger.level;
    }
}

int playVirtually(Ledger &ledger) {
    host_sim_start();
    ecore_init();
    Application application(ledger);
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
        const bool isWatchOver = ++passes % 10 == 0 || ledger.finished() == finished;
        host_sim_advance(isWatchOver ? 31 : 0.001);
        application.tellLevel();
    });
    clients.clear();
    host_sim_advance(0);
    return 0;
}

int playOverSockets(Ledger &ledger) {
    Child application([&] { return Application::run(ledger); }, Child::INHERITED);
    std::deque<Child> clients;
    for (std::size_t i = 0; i < HONEST; ++i)
        clients.emplace_back([&, i] { return HonestClient(ledger, i).run(); }, Child::INHERITED);
    for (std::size_t i = 0; i < HOSTILE; ++i)
        clients.emplace_back([&, i] { return HostileClient(ledger, i).run(); }, Child::INHERITED);
    playTenths(ledger, [] { std::this_thread::sleep_for(1ms); });
    ledger.stop = true;
    clients.clear();
    return application.wait();
}

// A table of figures; remembers whether each was as it must be.
struct Report {
    explicit Report(const std::string &heading) { std::printf("%s\n", heading.c_str()); }
    void line(const char *what, const std::string &figure, bool isRight = true) {
        std::printf("  %-44s %10s%s\n", what, figure.c_str(), isRight ? "" : "  WRONG");
        holds = holds && isRight;
    }
    void line(const char *what, std::uint64_t figure, bool isRight = true) {
        line(what, std::to_string(figure), isRight);
    }
    bool holds = true;
};

bool play(std::size_t requests, bool isVirtual) {
    Ledger &ledger = Ledger::make(requests / (HONEST * TENTHS) * HONEST * TENTHS, isVirtual);
    const auto begin = Clock::now();
    const auto work = [&] {
        setenv("NELVO_LOG", "silent", 1); // garbage makes for many lines
        unsetenv("NELVO_HOST_APP_ID");
        host_sim_set_manifest(
            "<manifest><ui-application appid='demo.app'><metadata value='1.0' key="
            "'http://developer.tizen.org/tizen/metadata/nelvo/sdk/version'/></ui-application>"
            "</manifest>");
        return isVirtual ? playVirtually(ledger) : playOverSockets(ledger);
    };
    const bool played = Child(work, Child::INHERITED).wait(24h) == 0;

    std::uint64_t answered = 0, overtaken = 0, lost = 0, twice = 0;
    for (std::uint64_t i = 0; i < ledger.requests; ++i) {
        const Entry &entry = ledger.entries[i];
        const int answers = entry.answers, wanted = entry.fate == ANSWERED ? 1 : 0;
        answered += entry.fate == ANSWERED;
        overtaken += entry.fate == OVERTAKEN;
        lost += entry.fate == UNKNOWN || answers < wanted;
        twice += answers > wanted;
    }
    Report report(std::string(isVirtual ? "In virtual time, " : "Over sockets, ") +
                  std::to_string((Clock::now() - begin) / 1s) + " s");
    report.line("requests of five honest clients", ledger.requests, played);
    report.line("  answered", answered, answered > 0);
    report.line("  of these by the library, after 30 s", ledger.timedOut);
    report.line("  overtaken", overtaken, overtaken > 0);
    report.line("  lost", lost, lost == 0);
    report.line("  answered twice, or though overtaken", twice, twice == 0);
    report.line("acts of three hostile clients", Ledger::sum(ledger.acts));
    report.line("wrong answers and return codes", ledger.wrong, ledger.wrong == 0);
    report.line("the application before it starts", ledger.start.text());
    report.line("after the first tenth", ledger.afterTenth.text(),
                ledger.afterTenth.descriptors == descriptorsWanted(ledger));
    report.line("in the end, or when that differed first", ledger.later.text(),
                isBack(ledger, ledger.later));
    report.line("after it has stopped", ledger.end.text(),
                std::strcmp(ledger.end.handles, testkit::NO_HANDLES) == 0 &&
                    ledger.end.timers == 0 && ledger.end.descriptors == ledger.start.descriptors);
    return report.holds;
}

// Attacks the player until isEnough() or for so long.
void flood(Ledger &ledger, std::chrono::seconds limit, const std::function<bool()> &isEnough) {
    const auto attack = [&] { return HostileClient(ledger, 0).run(); };
    Child first(attack), second(attack);
    for (const auto end = Clock::now() + limit; Clock::now() < end && !isEnough();) {
        ledger.done[0] += 1000; // more than the pace of any hostile client
        std::this_thread::sleep_for(1ms);
    }
}

// Under attack, the player calls nothing that may block once its loop runs: only these, of which
// some cannot block and the others are told not to.
void traceCalls(const std::string &player, Report &report) {
    static const std::regex ALLOWED(
        R"((epoll_wait|epoll_ctl|close|shutdown|getsockopt|prlimit64|brk|mmap|munmap)\(.*)"
        R"(|(mremap|madvise|rt_sig\w+|unlink|exit_group|newfstatat|fstat)\(.*)"
        R"(|(getpid|getuid|geteuid)\(.*|(accept4|socket)\(.*SOCK_NONBLOCK.*)"
        R"(|(recvfrom|recvmsg|sendmsg|sendto)\(.*MSG_DONTWAIT.*)"
        R"(|openat\(.*allow_list\.dat".*)"
        R"(|(read|lseek)\(\d+<(/.*/allow_list\.dat|anon_inode:\[signalfd\])>.*)"
        R"(|flock\(.*LOCK_UN.*|futex\(.*FUTEX_WAKE.*|(---|\+\+\+) .*)");
    const std::string log = std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/calls");
    Ledger &ledger = Ledger::make(0, false);
    // -D: the child is the player, strace a grandchild.
    Child traced("/usr/bin/strace", {"-D", "-f", "-y", "-o", log, player});
    flood(ledger, 3s, [] { return false; });
    traced.signal(SIGTERM);
    const int exitCode = traced.wait();

    std::uint64_t calls = 0, blocking = 0;
    std::set<std::string> named;
    std::ifstream file(log);
    bool inLoop = false; // from the first wait on; sockets are looked at before as well
    for (std::string line; std::getline(file, line);) {
        line.erase(0, line.find_first_not_of("0123456789 ")); // the process
        const std::string name = line.substr(0, line.find('('));
        inLoop = inLoop || name == "epoll_wait";
        if (!inLoop && name != "socket")
            continue;
        ++calls;
        if (std::regex_match(line, ALLOWED))
            continue;
        ++blocking;
        if (named.insert(name).second)
            std::printf("  may block: %s\n", line.c_str());
    }
    if (calls == 0) {
        report.line("system calls under attack", "not looked at: strace may not trace here");
        return;
    }
    report.line("acts of hostile clients while it is traced", ledger.acts[0], ledger.acts[0] > 0);
    report.line("system calls of the player meanwhile", calls,
                exitCode == 0 && calls > ledger.acts[0]);
    report.line("  that may block, but for the loop's wait", blocking, blocking == 0);
}

void awaitWatch(Report &report) {
    Ledger &ledger = Ledger::make(0, false);
    Child watched([&] { return WatchedClient(ledger).run(); });
    flood(ledger, 35s, [&] { return ledger.watchMilliseconds != 0; });
    const std::int64_t took = ledger.watchMilliseconds;
    report.line("acts of hostile clients during the watch", ledger.acts[0], ledger.acts[0] > 0);
    report.line("  it answers after, ms", std::to_string(took), std::labs(took - 30'000) <= 100);
}

// How often the process has been given the processor; 0 if it does not run.
std::uint64_t timesRun(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    std::uint64_t times = 0, count = 0;
    for (std::string word; file >> word;)
        if (word.find("voluntary_ctxt_switches:") != std::string::npos && file >> count)
            times += count;
    return times;
}

void leaveAlone(pid_t player, Report &report) {
    std::this_thread::sleep_for(7s); // incomplete connections are given up after 5 s
    const std::uint64_t before = timesRun(player);
    std::this_thread::sleep_for(60s);
    report.line("wake-ups in 60 s, left alone", timesRun(player) - before,
                before > 0 && timesRun(player) == before);
}

bool keepsItsMainLoop(const std::string &player) {
    Report report("The player's main loop");
    setenv("NELVO_HOST_APP_ID", APP, 1);
    setenv("NELVO_LOG", "silent", 1);
    traceCalls(player, report);
    const Child untraced(player, {});
    awaitWatch(report);
    leaveAlone(untraced.pid(), report);
    return report.holds;
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
