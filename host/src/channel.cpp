// SPDX-License-Identifier: Apache-2.0
#include "channel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include <cxxabi.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <dlog.h>

#include "handles.h"
#include "log_tag.h"
#include "loop.h"
#include "tap.h"

namespace host {

namespace {

constexpr std::size_t HEADER_BYTES = FrameReader::HEADER_BYTES;
constexpr char OUT_OF_MEMORY[] = "out of memory";
constexpr char FRAME_TOO_LONG[] = "a frame is longer than is allowed";
constexpr char SPOKE_UNASKED[] = "it sent something on the callback channel";

using Ports = Handles<Channel *>;

int deliveries = 0; // calls of onFrame() in progress, for all channels

// Never destroyed: applications release ports from static destructors.
std::vector<std::weak_ptr<Channel>> &heldChannels = *new std::vector<std::weak_ptr<Channel>>;

bool isTemporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

std::shared_ptr<Channel> Channel::open(UniqueFd socket, std::size_t frameLimit,
                                       std::weak_ptr<ChannelOwner> owner) {
    auto channel = std::make_shared<Channel>(std::move(socket));
    channel->_frameLimit = frameLimit;
    channel->_reader.setLimit(frameLimit);
    channel->_owner = std::move(owner);
    channel->_port = Ports::instance().add(channel.get());
    channel->_handler = Loop::instance().addHandler(channel->_socket.get(), ECORE_FD_READ,
                                                    onReadyCb, channel.get(), nullptr, nullptr);
    if (!channel->_handler)
        throw std::bad_alloc();
    return channel;
}

Channel *Channel::find(rpc_port_h port) {
    Channel *const *const channel = Ports::instance().find(port);
    return channel ? *channel : nullptr;
}

Channel::~Channel() {
    close();
    Ports::instance().remove(_port);
}

void Channel::close() {
    Loop::instance().deleteTimer(std::exchange(_moreTimer, nullptr));
    Loop::instance().deleteHandler(std::exchange(_handler, nullptr));
    _socket.reset();
}

void Channel::expect(std::size_t frameLimit, bool keeping) {
    _frameLimit = frameLimit;
    _reader.setLimit(frameLimit);
    _keeping = keeping;
    if (_reader.hasBegun())
        frameLimit == 0 ? fail(SPOKE_UNASKED) : wantTurn();
    watch();
}

// After this, reads return the bytes that have already arrived and then the end of the stream.
void Channel::drain() {
    shutdown(_socket.get(), SHUT_RD);
}

void Channel::watch() {
    const unsigned flags = (isReading() ? unsigned{ECORE_FD_READ} : 0U) |
                           (_queue.isEmpty() ? 0U : unsigned{ECORE_FD_WRITE});
    Loop::instance().setFlags(_handler, flags);
}

void Channel::wantTurn() {
    if (_moreTimer || !isOpen())
        return;
    _moreTimer = Loop::instance().addTimer(0, onMoreCb, this, true);
    if (!_moreTimer)
        fail(OUT_OF_MEMORY);
}

void Channel::fail(const char *reason) {
    if (!_failed && isOpen()) {
        const auto owner = _owner.lock();
        dlog_print(DLOG_WARN, LOG_TAG, "the connection with %s is ended: %s",
                   owner ? owner->peer() : "a client", reason);
        shutdown(_socket.get(), SHUT_RDWR);
    }
    _failed = true;
}

Eina_Bool Channel::onReadyCb(void *data, Ecore_Fd_Handler *handler) {
    const auto self = static_cast<Channel *>(data)->shared_from_this();
    const unsigned active = Loop::instance().active(handler);
    if (self->_held)
        return ECORE_CALLBACK_RENEW;
    if ((active & ECORE_FD_ERROR) && !self->isReading()) {
        self->end();
        return ECORE_CALLBACK_RENEW;
    }
    if (active & ECORE_FD_WRITE)
        self->flush();
    if (active & ECORE_FD_READ)
        self->turn(true);
    return ECORE_CALLBACK_RENEW;
}

Eina_Bool Channel::onMoreCb(void *data) {
    const auto self = static_cast<Channel *>(data)->shared_from_this();
    // Before turn(), which may need a new timer.
    self->_moreTimer = nullptr;
    self->turn(false);
    return ECORE_CALLBACK_CANCEL;
}

void Channel::turn(bool readable) {
    if (mustHold())
        return hold();
    const auto owner = _owner.lock();
    if (!owner || !fill(readable)) {
        end();
    } else if (_keeping) {
        watch();
    } else if (_reader.isWhole()) {
        offerFrame(*owner);
    }
}

// An event in progress. Its end lets the channels go on that were held back.
class Channel::Delivery {
public:
    explicit Delivery(Channel &channel) : _channel(channel) {
        ++_channel._deliveries;
        ++deliveries;
    }
    Delivery(const Delivery &) = delete;
    Delivery &operator=(const Delivery &) = delete;
    ~Delivery() {
        --_channel._deliveries;
        --deliveries;
        if (!heldChannels.empty())
            releaseAll();
    }

private:
    static void releaseAll() {
        for (const auto &held : std::exchange(heldChannels, {})) {
            if (const auto channel = held.lock())
                channel->release();
        }
    }

    Channel &_channel;
};

bool Channel::mustHold() const {
    return deliveries > 0 &&
           (deliveries >= MAX_NESTED_EVENTS || (_deliveries > 0 && !Loop::instance().mayNest()));
}

void Channel::hold() {
    try {
        heldChannels.push_back(weak_from_this());
        _held = true;
        watch();
    } catch (const std::bad_alloc &) {
        fail(OUT_OF_MEMORY);
    }
}

void Channel::release() {
    _held = false;
    if (!isOpen())
        return;
    watch();
    if (_reader.hasMore())
        wantTurn();
}

// The exception that unwinds a thread is no object, which the sanitizer takes for a mistake.
__attribute__((no_sanitize("null"))) void Channel::offerFrame(ChannelOwner &owner) {
    const Delivery delivery(*this);
    Bytes frame = _reader.take();
    Bytes *const outer = std::exchange(_offer, &frame);
    if (_reader.hasMore())
        wantTurn();
    try {
        owner.onFrame(*this);
    } catch (const std::bad_alloc &) {
        fail(OUT_OF_MEMORY);
    } catch (const abi::__forced_unwind &) { // the thread ends
        throw;
    } catch (...) {
        fail("an exception has left a callback");
    }
    _offer = outer;
}

void Channel::end() {
    if (!isOpen())
        return;
    close();
    if (const auto owner = _owner.lock())
        owner->onEnd(*this);
}

// Continues the current frame with bytes that have been read already, then with one read. Returns
// false if no further bytes will arrive.
bool Channel::fill(bool readable) {
    try {
        _reader.readOn();
        if (_reader.isTooLong())
            fail(FRAME_TOO_LONG);
        return !_failed && (_reader.isWhole() || !readable || receive());
    } catch (const std::bad_alloc &) {
        fail(OUT_OF_MEMORY);
        return false;
    }
}

bool Channel::receive() {
    const FrameReader::Room room = _reader.room();
    const ssize_t result = recv(_socket.get(), room.at, room.size, MSG_DONTWAIT);
    if (result < 0)
        return isTemporary(errno);
    if (result == 0 && _reader.hasBegun())
        fail("its last frame is incomplete");
    else if (result > 0 && _frameLimit == 0)
        fail(SPOKE_UNASKED);
    else if (result > 0)
        _reader.filled(static_cast<std::size_t>(result));
    if (_reader.isTooLong())
        fail(FRAME_TOO_LONG);
    return result > 0 && !_failed;
}

int Channel::take(Bytes &payload) {
    if (_keeping) {
        const auto self = shared_from_this();
        if (!fill(false) || !(_reader.isWhole() || awaitFrame()))
            return RPC_PORT_ERROR_IO_ERROR;
        payload = _reader.take();
        watch();
        return RPC_PORT_ERROR_NONE;
    }
    if (!_offer)
        return RPC_PORT_ERROR_IO_ERROR;
    payload = std::move(*std::exchange(_offer, nullptr));
    return RPC_PORT_ERROR_NONE;
}

// A simulated application lives in this process, so the loop has to run until the application has
// answered. A real application is another process, and no event may be delivered while waiting.
bool Channel::awaitFrame() {
    Loop &loop = Loop::instance();
    if (loop.isSimulated()) {
        while (isOpen() && !_reader.isWhole() && loop.runOnceForClient()) {
        }
        return _reader.isWhole();
    }
    const std::int64_t deadline = loop.now() + static_cast<std::int64_t>(REPLY_SECONDS * 1e9);
    while (isOpen() && !_reader.isWhole() && pollOnce(deadline)) {
    }
    return _reader.isWhole();
}

// A timeout ends the connection: a late reply would be taken for the reply to the next request.
bool Channel::pollOnce(std::int64_t deadline) {
    const std::int64_t left = deadline - Loop::instance().now();
    if (left <= 0) {
        fail("no reply in time");
        return false;
    }
    pollfd state{};
    state.fd = _socket.get();
    state.events = static_cast<short>(_queue.isEmpty() ? POLLIN : POLLIN | POLLOUT);
    const int ready = poll(&state, 1, static_cast<int>(left / 1'000'000 + 1));
    if (ready > 0 && (state.revents & POLLOUT))
        flush();
    return ready <= 0 || !(state.revents & ~POLLOUT) || fill(true);
}

int Channel::send(const Parcel &parcel) {
    const std::size_t size = parcel.size();
    if (!isOpen() || _failed || _deserted || size > MAX_FRAME_BYTES)
        return RPC_PORT_ERROR_IO_ERROR;
    std::uint8_t header[HEADER_BYTES];
    for (std::size_t i = 0; i < HEADER_BYTES; ++i)
        header[i] = static_cast<std::uint8_t>(size >> (8 * i));
    // While frames are queued, further frames go to the queue, to keep their order.
    std::size_t sent = 0;
    if (_queue.isEmpty() && !transmit(parcel, header, sent))
        return RPC_PORT_ERROR_IO_ERROR;
    const int result =
        sent < sizeof(header) + size ? enqueue(header, parcel, sent) : RPC_PORT_ERROR_NONE;
    const auto owner = Tap::isOpen() && result == RPC_PORT_ERROR_NONE ? _owner.lock() : nullptr;
    if (owner)
        owner->onSent(*this, parcel);
    return result;
}

// The other side has closed the connection. The frames that it sent before are still delivered.
void Channel::desert() {
    const auto owner = _owner.lock();
    dlog_print(DLOG_INFO, LOG_TAG, "nothing more can be sent to %s: %s",
               owner ? owner->peer() : "a client", std::strerror(errno));
    _deserted = true;
    _queue.clear();
    drain();
    watch();
}

bool Channel::transmit(const Parcel &parcel, const std::uint8_t *header, std::size_t &sent) {
    iovec parts[SendQueue::MAX_PARTS]; // further parts go to the queue
    parts[0] = {const_cast<std::uint8_t *>(header), HEADER_BYTES};
    std::size_t count = 1;
    parcel.forEachPiece([&](const Memory &, const void *data, std::size_t length) {
        if (count < SendQueue::MAX_PARTS)
            parts[count++] = {const_cast<void *>(data), length};
    });
    return transmit(parts, count, sent);
}

// Returns false if sending is impossible now.
bool Channel::transmit(iovec *parts, std::size_t count, std::size_t &sent) {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    const ssize_t result = sendmsg(_socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (result < 0 && !isTemporary(errno)) {
        desert();
        return false;
    }
    sent = result < 0 ? 0 : static_cast<std::size_t>(result);
    return true;
}

int Channel::enqueue(const void *header, const Parcel &parcel, std::size_t sent) {
    if (_queue.size() + HEADER_BYTES + parcel.size() - sent > MAX_QUEUE_BYTES) {
        fail("it does not read what it is sent");
        return RPC_PORT_ERROR_IO_ERROR;
    }
    try {
        const auto add = [&](const Memory &memory, const void *data, std::size_t size) {
            const std::size_t skipped = std::min(sent, size);
            sent -= skipped;
            if (skipped < size)
                _queue.add({memory, static_cast<const char *>(data) + skipped, size - skipped});
        };
        add({}, header, HEADER_BYTES);
        parcel.forEachPiece(add);
    } catch (const std::bad_alloc &) {
        fail(OUT_OF_MEMORY);
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
    watch();
    return RPC_PORT_ERROR_NONE;
}

void Channel::flush() {
    iovec parts[SendQueue::MAX_PARTS];
    std::size_t sent = 0;
    if (!_queue.isEmpty() && transmit(parts, _queue.front(parts), sent)) {
        _queue.consume(sent);
        watch();
    }
}

} // namespace host

int rpc_port_parcel_create_from_port(rpc_port_parcel_h *h, rpc_port_h port) {
    const bool valid = h && host::Loop::isOwnThread(__func__);
    host::Channel *const channel = valid ? host::Channel::find(port) : nullptr;
    if (!channel)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    return host::guarded([&] {
        auto parcel = std::make_unique<host::Parcel>();
        const int result = channel->take(parcel->bytes);
        if (result == RPC_PORT_ERROR_NONE)
            *h = parcel.release();
        return result;
    });
}

int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port) {
    host::Parcel *const parcel = host::findParcel(h, __func__);
    const bool valid = parcel && host::Loop::isOwnThread(__func__);
    host::Channel *const channel = valid ? host::Channel::find(port) : nullptr;
    return channel ? channel->send(*parcel) : RPC_PORT_ERROR_INVALID_PARAMETER;
}
