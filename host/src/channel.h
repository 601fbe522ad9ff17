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

constexpr std::size_t MAX_FRAME_BYTES = std::size_t{16} << 20;
constexpr std::size_t MAX_QUEUE_BYTES = std::size_t{32} << 20;
constexpr double REPLY_SECONDS = 10.0;

class Channel;

// Who hears of a channel's events, which come from the main loop only. It is kept alive meanwhile.
class ChannelOwner {
public:
    virtual ~ChannelOwner() = default;
    // The other side, for log lines.
    virtual const char *peer() const = 0;
    // A whole frame has come: take() it now, or it is dropped.
    virtual void onFrame(Channel &channel) = 0;
    // It is closed now, for nothing comes any more. Once, and not after the owner has closed it.
    virtual void onEnd(Channel &channel) = 0;
};

// One socket of a connection and what stands behind an rpc_port_h: frames in, frames out.
//
// Each turn of the loop reads at most once and delivers at most one frame; a zero-second timer stands for frames
// that have been read already. Callbacks may run the loop from inside, so all state is in order
// before the owner is called: the next turn may be an inner one.
//
// What cannot be reported from where it happens (a send that fails, say) is a fault: the socket is
// shut down, which makes the loop come here and end the channel.
class Channel : public std::enable_shared_from_this<Channel> {
public:
    // Throws std::bad_alloc, also when the loop cannot watch the socket.
    static std::shared_ptr<Channel> open(UniqueFd socket, std::size_t frameLimit,
                                         std::weak_ptr<ChannelOwner> owner);
    // Null for a handle of no channel.
    static Channel *find(rpc_port_h port);

    explicit Channel(UniqueFd socket) : _socket(std::move(socket)) {}
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;
    ~Channel();

    rpc_port_h port() const { return _port; }
    bool isOpen() const { return static_cast<bool>(_socket); }
    bool hasFailed() const { return _failed; }

    void setOwner(std::weak_ptr<ChannelOwner> owner) { _owner = std::move(owner); }
    // Frames up to the limit go to the owner, or stay until they are taken: then no more than one
    // is read. With a limit of 0 nothing at all may come.
    void deliver(std::size_t frameLimit) { expect(frameLimit, false); }
    void keep(std::size_t frameLimit) { expect(frameLimit, true); }
    // The other channel is gone: what has come before that is still delivered, then this one ends.
    void drain();
    // Lets go of the socket; no event comes afterwards. The port handle lives on with the object.
    void close();

    // Both give an rpc-port error. A payload that is too long is refused and changes nothing; any
    // other failure ends the channel. When it is for want of the other side, what that has said
    // before it went is delivered first.
    int send(const Parcel &parcel);
    int take(Bytes &payload);

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

    bool isReading() const { return !_keeping || !_reader.isWhole(); }
    bool fill(bool readable);
    bool receive();
    bool awaitFrame();
    bool pollOnce(std::int64_t deadline);

    void desert();
    bool transmit(const Parcel &parcel, const std::uint8_t *header, std::size_t &sent);
    bool transmit(iovec *parts, std::size_t count, std::size_t &sent);
    bool note(ssize_t result, std::size_t &sent);
    int enqueue(const void *header, const Parcel &parcel, std::size_t sent);
    void flush();

    UniqueFd _socket;
    void *_handler = nullptr;
    void *_moreTimer = nullptr; // null: no turn is asked for
    rpc_port_h _port = nullptr;
    std::weak_ptr<ChannelOwner> _owner;
    std::size_t _frameLimit = 0; // 0: nothing at all may come
    bool _keeping = false;
    bool _failed = false;
    bool _deserted = false; // nothing can be sent any more

    FrameReader _reader;
    Bytes *_offer = nullptr; // while onFrame() runs and has not taken its frame

    SendQueue _queue;
};

} // namespace host
