// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <Ecore.h>
#include <rpc-port.h>

#include "frame_reader.h"
#include "parcel.h"
#include "send_queue.h"
#include "unique_fd.h"

struct iovec;

namespace host {

constexpr std::size_t MAX_QUEUE_BYTES = std::size_t{32} << 20;
constexpr double REPLY_SECONDS = 10.0;
// How many received events, each inside a callback of the one before, may be in progress.
constexpr int MAX_NESTED_EVENTS = 16;

class Channel;

// Receives a channel's events, all of them from the main loop. The channel keeps its owner alive
// during each call.
class ChannelOwner {
public:
    virtual ~ChannelOwner() = default;
    // Names the other side in log lines.
    virtual const char *peer() const = 0;
    // A whole frame has arrived. A frame that is not taken with take() during this call is dropped.
    virtual void onFrame(Channel &channel) = 0;
    // The channel has ended and is closed. Called at most once, and not if the owner closed it.
    virtual void onEnd(Channel &channel) = 0;
    // The channel has sent a payload, or queued it. Called only while the tap is open.
    virtual void onSent(Channel &, const Parcel &) {}
};

// One socket of a connection, which receives and sends frames. An rpc_port_h is the handle of a
// channel.
//
// In one round of the loop a channel reads at most once and delivers at most one frame. For frames
// that have been read but not delivered it asks for another round with a zero-second timer. The
// owner may run the loop from inside a callback, so a channel updates its state before it calls its
// owner. In such an inner loop a channel is held back, neither read nor delivered, while its own event
// is in progress or MAX_NESTED_EVENTS are; it goes on when an event has ended.
//
// An error that cannot be returned to a caller (a failed send, for example) shuts the socket down.
// The loop then reports the socket as ready, and the channel ends.
class Channel : public std::enable_shared_from_this<Channel> {
public:
    // Throws std::bad_alloc; also if the loop cannot watch the socket.
    static std::shared_ptr<Channel> open(UniqueFd socket, std::size_t frameLimit,
                                         std::weak_ptr<ChannelOwner> owner);
    // Returns null if the handle does not belong to a channel.
    static Channel *find(rpc_port_h port);

    explicit Channel(UniqueFd socket) : _socket(std::move(socket)) {}
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;
    ~Channel();

    rpc_port_h port() const { return _port; }
    bool isOpen() const { return static_cast<bool>(_socket); }
    bool hasFailed() const { return _failed; }

    void setOwner(std::weak_ptr<ChannelOwner> owner) { _owner = std::move(owner); }
    // From now on frames up to the limit are delivered to the owner, or kept until take(); at most
    // one frame is kept. With a limit of 0 the other side must not send anything.
    void deliver(std::size_t frameLimit) { expect(frameLimit, false); }
    void keep(std::size_t frameLimit) { expect(frameLimit, true); }
    // Delivers the frames that have already arrived, then ends. For when the other channel of the
    // connection has ended.
    void drain();
    // Closes the socket. No event follows. The port handle stays valid as long as the object.
    void close();

    // Both return an rpc-port error. A payload that is too long is refused without any effect; any
    // other failure ends the channel. If the other side has closed the connection, the frames that
    // it sent before are still delivered.
    int send(const Parcel &parcel);
    int take(Bytes &payload);
    // The frame that take() gives during onFrame(); null if it has been taken.
    const Bytes *offered() const { return _offer; }

private:
    static Eina_Bool onReadyCb(void *data, Ecore_Fd_Handler *handler);
    static Eina_Bool onMoreCb(void *data);

    void expect(std::size_t frameLimit, bool keeping);
    void turn(bool readable);
    void offerFrame(ChannelOwner &owner);
    void end();
    void fail(const char *reason);
    void watch();
    void wantTurn();

    class Delivery;
    bool mustHold() const;
    void hold();
    void release();

    bool isReading() const { return !_held && (!_keeping || !_reader.isWhole()); }
    bool fill(bool readable);
    bool receive();
    bool awaitFrame();
    bool pollOnce(std::int64_t deadline);

    void desert();
    bool transmit(const Parcel &parcel, const std::uint8_t *header, std::size_t &sent);
    bool transmit(iovec *parts, std::size_t count, std::size_t &sent);
    int enqueue(const void *header, const Parcel &parcel, std::size_t sent);
    void flush();

    ParentsFd _socket;
    void *_handler = nullptr;
    void *_moreTimer = nullptr; // null: no further turn is needed
    rpc_port_h _port = nullptr;
    std::weak_ptr<ChannelOwner> _owner;
    std::size_t _frameLimit = 0; // 0: the other side must not send
    bool _keeping = false;
    bool _failed = false;
    bool _held = false;
    int _deliveries = 0;    // calls of onFrame() in progress
    bool _deserted = false; // the other side has closed; sending is impossible

    FrameReader _reader;
    Bytes *_offer = nullptr; // the frame that onFrame() may still take, else null

    SendQueue _queue;
};

} // namespace host
