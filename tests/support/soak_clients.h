// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <random>
#include <string>

#include "client/message_proxy.h"
#include "soak_ledger.h"

namespace nelvo::testkit::soak {

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
    int _rawSocket = -1;
    std::mt19937 _random; // the same acts in every run
};

} // namespace nelvo::testkit::soak
