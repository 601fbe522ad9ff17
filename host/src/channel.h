// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <Ecore.h>
#include <dlog.h>
#include <rpc-port.h>

#include "unique_fd.h"

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
// A frame is a length (four bytes, the lowest first) and that many bytes of payload. Each turn of
// the loop reads at most once and delivers at most one frame; a zero-second timer stands for frames
// that have been read already. Callbacks may run the loop from inside, so all state is in order
// before the owner is called: the next turn may be an inner one.
//
// What cannot be reported from where it happens (a send that fails, say) is a fault: the socket is
// shut down, which makes the loop come here and end the channel.
class Channel : public std::enable_shared_from_this<Channel> {
public:
    enum class Mode {
        DELIVER, // each frame goes to the owner
        HOLD,    // what comes stays in the socket
        KEEP,    // a frame stays until it is taken; no further one is read
        SILENT,  // nothing may come
    };

    // Null when the loop cannot watch the socket. Throws std::bad_alloc.
    static std::shared_ptr<Channel> open(UniqueFd socket, std::size_t frameLimit,
                                         std::weak_ptr<ChannelOwner> owner);
    // Null for a handle of no open channel.
    static std::shared_ptr<Channel> find(rpc_port_h port);

    explicit Channel(UniqueFd socket) : _socket(std::move(socket)) {}
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;
    ~Channel();

    rpc_port_h port() const { return _port; }
    bool isOpen() const { return static_cast<bool>(_socket); }
    bool hasFailed() const { return _failed; }

    void setOwner(std::weak_ptr<ChannelOwner> owner) { _owner = std::move(owner); }
    void setFrameLimit(std::size_t bytes) { _frameLimit = bytes; }
    void setMode(Mode mode);
    // The other channel is gone: what has come before that is still delivered, then this one ends.
    void drain();
    // Lets go of the socket; no event comes afterwards. The port handle lives on with the object.
    void close();

    // Both give an rpc-port error. A payload that is too long is refused and changes nothing; any
    // other failure ends the channel.
    int send(const std::vector<std::uint8_t> &payload);
    int take(std::vector<std::uint8_t> &payload);

private:
    static Eina_Bool onReadyCb(void *data, Ecore_Fd_Handler *handler);
    static Eina_Bool onMoreCb(void *data);

    void turn(bool readable);
    void deliver(ChannelOwner &owner);
    void end();
    void fail(const char *reason, log_priority priority = DLOG_WARN);

    bool isWhole() const { return _framing && _filled == _length; }
    bool isReading() const;
    void watch();
    void wantTurn();

    bool receive();
    ssize_t readAhead();
    ssize_t readFrame();
    void startFromAhead();
    std::size_t startFrame(const std::uint8_t *bytes, std::size_t size);
    std::vector<std::uint8_t> finishFrame();
    bool awaitFrame();
    bool pollOnce(std::int64_t deadline);

    int enqueue(const std::uint8_t *header, const std::vector<std::uint8_t> &payload,
                std::size_t sent);
    void flush();

    UniqueFd _socket;
    void *_handler = nullptr;
    void *_moreTimer = nullptr; // null: no turn is asked for
    rpc_port_h _port = nullptr;
    std::weak_ptr<ChannelOwner> _owner;
    Mode _mode = Mode::DELIVER;
    std::size_t _frameLimit = 0;
    bool _draining = false;
    bool _failed = false;

    // Received: at most one frame in the making, then bytes behind it that nobody has looked at.
    bool _framing = false;
    std::size_t _length = 0;
    std::size_t _filled = 0;
    std::vector<std::uint8_t> _frame; // grows with what arrives, not with what is announced
    std::vector<std::uint8_t> _ahead;
    std::size_t _aheadStart = 0;
    bool _offered = false; // onFrame() is running and has not taken its frame yet
    std::vector<std::uint8_t> _offer;

    std::vector<std::uint8_t> _queue; // what the socket had no room for
    std::size_t _queueStart = 0;
};

} // namespace host
