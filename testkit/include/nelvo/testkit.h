// SPDX-License-Identifier: Apache-2.0
#ifndef NELVO_TESTKIT_H
#define NELVO_TESTKIT_H

/**
 * @file
 * Tests an application in the process of its test: on a simulated device whose clock is moved by
 * hand, with clients that send it requests.
 *
 * Link it beside the library, before the host platform: what the kit stands before is the
 * platform's functions and the C library's open() and fopen(). It changes nothing about the
 * library. Any test framework will do.
 *
 * Everything here belongs to the thread of the test, which is the application's main-loop thread
 * too. Nothing waits for real time or reaches outside the process: no socket file, no allow list
 * of the machine, no privilege.
 *
 * What the platform does not promise does not hold here: bundle_foreach() shows the last entry
 * first, and a call that fails stores a value that must not be used where it could have stored its
 * result.
 */

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <bundle.h>
#include <dlog.h>

#define NELVO_TESTKIT_API __attribute__((visibility("default")))

namespace nelvo::testkit {

/** What an answer holds, but for its request id: texts by their keys. */
using Fields = std::map<std::string, std::string>;

/**
 * What an answer must hold when the application reported something, to compare with.
 *
 * @param key    "result" of an action, "appContext" of the state
 * @param value  what the application reported
 *
 * @return all of the answer but its request id
 */
NELVO_TESTKIT_API Fields success(const std::string &key, const std::string &value);

/**
 * What an answer must hold when the library gave it for want of the application's.
 *
 * @param key      as for success()
 * @param message  says why: "Action execution request timed out"
 *
 * @return all of the answer but its request id
 */
NELVO_TESTKIT_API Fields failure(const std::string &key, const std::string &message);

/** One entry of the log. */
struct NELVO_TESTKIT_API LogLine {
    log_priority priority; /**< its level */
    std::string tag; /**< whose it is; the library's own, the platform's or the application's */
    std::string function; /**< that logged it; empty unless the library did */
    std::string message;  /**< what it said, without prefix, line number and function */
    std::string text;     /**< as it was logged */

    /** @return the line in short: "E receiveRequest: message" */
    std::string summary() const;
};

/**
 * A device for one application, without an allow list: what the process does happens there.
 *
 * Create it before anything else of the platform is used; there is no way back to a real one. One
 * at a time; another may follow, but what the first call of the library in a process decides stays
 * decided, the application's id and whether its SDK version is supported.
 */
class NELVO_TESTKIT_API Simulation {
public:
    /**
     * Starts it, with a manifest that names the application and admits it.
     *
     * @param appId  the application's id
     *
     * @throws std::logic_error  the kit is linked behind the host platform
     */
    explicit Simulation(const std::string &appId = "demo.app");

    /** Prints to stderr the warnings that nobody took. */
    ~Simulation();
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    /**
     * Replaces the manifest.
     *
     * @param xml  its whole text
     */
    void setManifest(const std::string &xml);

    /**
     * Replaces the manifest by one that differs from the first in the SDK version.
     *
     * @param version  such as "1.0"
     */
    void setSdkVersion(const std::string &version);

    /**
     * Gives the device an allow list, or another one: it is read for each new connection.
     *
     * @param content  the file's: a client's id in each line
     */
    void setAllowList(const std::string &content);

    /** Takes the allow list away, which admits every client. */
    void removeAllowList();

    /**
     * Moves the clock, and delivers every event and timer on the way.
     *
     * @param seconds  how far; with 0, what is due now is delivered
     */
    void advance(double seconds = 0);

    /** @return every entry since the start or clearLog(), of any level, in order; stays the device's */
    const std::vector<LogLine> &log() const;

    /** Forgets the log so far. */
    void clearLog();

    /**
     * Counts the entries of the log that are exactly this.
     *
     * @param priority  their level
     * @param function  that logged them
     * @param message   what they say
     *
     * @return how many there are
     */
    int countLog(log_priority priority, const std::string &function,
                 const std::string &message) const;

    /**
     * The entries of the library.
     *
     * @param atLeast  of this level or above
     *
     * @return the summary() of each, in order
     */
    std::vector<std::string> logTexts(log_priority atLeast = DLOG_DEBUG) const;

    /**
     * Writes down what else happens, among the entries of the log; clearLog() forgets it too.
     *
     * @param event  in words of the test's own
     */
    void note(const std::string &event);

    /** @return what was noted and what the library logged, in this order, "*" for each address */
    std::vector<std::string> transcript() const;

    /**
     * What the application does that is harmless, but hardly meant, each once; forgets them.
     *
     * Told is the completion of a request that was no longer pending: it had been completed before,
     * had timed out, a newer one had overtaken it, or the library had been stopped. A handler that
     * is kept for a hundred requests stands for another one then, which nobody can tell.
     *
     * @return a sentence for each
     */
    std::vector<std::string> takeWarnings();
};

/** What a client gets. */
struct NELVO_TESTKIT_API Answer {
    std::string sender;                     /**< the application's id */
    Fields fields;                          /**< what it holds */
    std::optional<std::uint64_t> requestId; /**< empty: absent, or not 8 bytes */

    /**
     * One of the fields.
     *
     * @param key  its name
     *
     * @return its text, or "" when there is none
     */
    std::string field(const std::string &key) const;

    /** @return whether the application reported a result, as its status code says */
    bool succeeded() const;
};

/**
 * A Nelvo client on the simulated device; destroy it before the Simulation.
 *
 * When a call returns it has reached the application, and what that sent at once has come back.
 * What sends or registers throws std::logic_error before the first connect().
 */
class NELVO_TESTKIT_API Client {
public:
    /**
     * Makes one, which is not connected yet.
     *
     * @param id  what it says it is, as the allow list may name it
     */
    explicit Client(const std::string &id = "demo.client");
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    /**
     * Connects anew, in place of an earlier connection.
     *
     * @return false when nobody listens
     */
    bool connect();

    /** Closes the connection, if there is one. */
    void disconnect();

    /** @return whether there is a connection: the application may have ended it */
    bool connected() const;

    /**
     * Registers the response callback, without which there are no answers.
     *
     * @return 0; -1 when refused; -100 when there was no reply
     */
    int setCb();

    /**
     * Removes it again.
     *
     * @return as for setCb()
     */
    int unsetCb();

    /**
     * Connects and registers.
     *
     * @return false when either failed
     */
    bool join() { return connect() && setCb() == 0; }

    /**
     * Sends a request for an action.
     *
     * @param actionId   the action
     * @param requestId  comes back in the answer
     * @param params     left out when empty
     */
    void request(const std::string &actionId, std::uint64_t requestId = 1,
                 const std::string &params = "");

    /**
     * Asks for the application's state, which the answer has under "appContext".
     *
     * @param requestId  comes back in the answer
     */
    void requestState(std::uint64_t requestId = 1);

    /**
     * Sends a request of any content.
     *
     * @param request  stays the caller's
     */
    void send(bundle *request);

    std::vector<Answer> answers; /**< so far, in the order in which they came; clear it at will */

    /** Not for applications. */
    struct Wire;

    /** @return not for applications */
    Wire &wire() { return *_wire; }

private:
    std::unique_ptr<Wire> _wire;
};

/**
 * Makes calls of one platform function fail, whether the library or the application makes them.
 *
 * What such a call would have done is not done. The test kit's own calls are neither counted nor
 * failed. The latest call holds, until stopFailing().
 *
 * @param function  its name: any that the library calls and that is documented to fail
 * @param error     what it returns; if that is a pointer, null whatever this says
 * @param nth       which call from now on; 1 is the next
 * @param always    every later one as well
 *
 * @throws std::invalid_argument  the function can't be made to fail
 */
NELVO_TESTKIT_API void failPlatformCall(const std::string &function, int error = -1, int nth = 1,
                                        bool always = false);

/**
 * Ends that.
 *
 * @return how many calls failed since
 */
NELVO_TESTKIT_API int stopFailing();

/**
 * Compares the actions that the application declares with those that it has registered by now.
 *
 * @param file  its catalogue, nelvo-actions.json
 *
 * @return the differences, one a line: "declared, not registered: play" and then "registered, not
 *         declared: seek"; empty when there are none
 *
 * @throws std::runtime_error  the file can't be read or is no catalogue
 */
NELVO_TESTKIT_API std::vector<std::string> compareCatalogue(const std::string &file);

/**
 * Plays a recorded session against the application on the simulated device, in virtual time: its clients
 * connect, ask and go when they did, and what they get is compared.
 *
 * Start from the state in which the recording began. A session of minutes takes milliseconds.
 *
 * @param file     written by nelvoctl record
 * @param ignored  what is not compared, as JSON pointers into an answer and into texts of it that are JSON:
 *                 "/appContext/position"
 *
 * @return the differences: a line that names the request, then "- " and what was recorded, "+ " and what came;
 *         empty when there are none
 *
 * @throws std::runtime_error     the file can't be read or holds no session
 * @throws std::invalid_argument  one of the pointers is none
 */
NELVO_TESTKIT_API std::vector<std::string> replay(const std::string &file,
                                                  const std::vector<std::string> &ignored = {});

} // namespace nelvo::testkit

#endif
