// SPDX-License-Identifier: Apache-2.0
#include "channel.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <dlog.h>

#include "handles.h"
#include "log_tag.h"
#include "loop.h"

namespace host {

namespace {

constexpr std::size_t HEADER_BYTES = 4;
constexpr std::size_t READ_BYTES = std::size_t{64} << 10;
constexpr std::size_t LARGE_BYTES = std::size_t{16} << 10; // worth being received in place
constexpr std::size_t GROWTH = 16;                         // of a frame's memory over what has come
constexpr std::size_t KEPT_BYTES = std::size_t{4} << 10;   // of an empty buffer, per channel
constexpr char OUT_OF_MEMORY[] = "out of memory";
constexpr char SPOKE_UNASKED[] = "it sent something on the callback channel";

using Ports = Handles<Channel *>;

bool isTemporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// Moves the start of what is left in a buffer. When that is nothing, a burst's memory goes back.
void consume(std::vector<std::uint8_t> &buffer, std::size_t &start, std::size_t size) {
    start += size;
    if (start < buffer.size())
        return;
    start = 0;
    buffer.clear();
    if (buffer.capacity() > KEPT_BYTES)
        buffer.shrink_to_fit();
}

} // namespace

std::shared_ptr<Channel> Channel::open(UniqueFd socket, std::size_t frameLimit,
                                       std::weak_ptr<ChannelOwner> owner) {
    auto channel = std::make_shared<Channel>(std::move(socket));
    channel->_frameLimit = frameLimit;
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
    _keeping = keeping;
    if (hasBegun())
        frameLimit == 0 ? fail(SPOKE_UNASKED) : wantTurn();
    watch();
}

// From here on a read gives what is there, and then the end.
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
    // First: a timer that is being called does not count as one that will be.
    self->_moreTimer = nullptr;
    self->turn(false);
    return ECORE_CALLBACK_CANCEL;
}

void Channel::turn(bool readable) {
    const auto owner = _owner.lock();
    if (!owner || !fill(readable)) {
        end();
    } else if (_keeping) {
        watch();
    } else if (isWhole()) {
        offerFrame(*owner);
    }
}

void Channel::offerFrame(ChannelOwner &owner) {
    Bytes frame = finish();
    Bytes *const outer = std::exchange(_offer, &frame);
    if (!_ahead.empty())
        wantTurn();
    try {
        owner.onFrame(*this);
    } catch (const std::bad_alloc &) {
        fail(OUT_OF_MEMORY);
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

// Goes on with the frame in the making: with what has been read already, then with one read. False:
// nothing more will come.
bool Channel::fill(bool readable) {
    try {
        if (!_ahead.empty() && !isWhole()) {
            consume(_ahead, _aheadStart,
                    extend(_ahead.data() + _aheadStart, _ahead.size() - _aheadStart));
        }
        return !_failed && (isWhole() || !readable || receive());
    } catch (const std::bad_alloc &) {
        fail(OUT_OF_MEMORY);
        return false;
    }
}

// How much of a large frame can be received where it is to stand: what is known to be missing or,
// before it has begun, as much as the one before had. The frame is made to have room for it.
std::size_t Channel::directRoom() {
    const bool hasHeader = _headerFilled == HEADER_BYTES;
    const std::size_t wanted = hasHeader ? _length : std::min(_lastLength, _frameLimit);
    if (wanted < LARGE_BYTES || (!hasHeader && hasBegun()))
        return 0;
    const std::size_t limit = std::max({_frame.size() * GROWTH, _lastLength, READ_BYTES});
    const std::size_t size = std::min(wanted, limit);
    if (size < _frame.size() + LARGE_BYTES)
        return 0;
    _frame.reserve(size);
    return size - _frame.size();
}

// What does not go to the frame directly goes into a buffer that all channels share: it is empty
// again before anybody else runs. A frame takes its part from there while that is still in the
// processor's cache.
bool Channel::receive() {
    static std::uint8_t buffer[READ_BYTES];
    std::uint8_t header[HEADER_BYTES];
    const std::size_t room = directRoom();
    const std::size_t headerRoom = room > 0 ? HEADER_BYTES - _headerFilled : 0;
    iovec parts[] = {{header, headerRoom}, {_frame.end(), room}, {buffer, sizeof(buffer)}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 3;
    const ssize_t result = room > 0 ? recvmsg(_socket.get(), &message, MSG_DONTWAIT)
                                    : recv(_socket.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
    if (result < 0)
        return isTemporary(errno);
    const auto count = static_cast<std::size_t>(result);
    if (count == 0 && hasBegun()) {
        fail("its last frame is incomplete");
    } else if (count > 0 && _frameLimit == 0) {
        fail(SPOKE_UNASKED);
    } else if (room > 0) {
        const std::size_t inHeader = std::min(count, headerRoom);
        const std::size_t inFrame = std::min(count - inHeader, room);
        extend(header, inHeader);
        takeDirect(inFrame);
        takeBuffered(buffer, count - inHeader - inFrame);
    } else {
        takeBuffered(buffer, count);
    }
    return count > 0 && !_failed;
}

// So many bytes have been received behind the frame's; those that are not the frame's come next.
void Channel::takeDirect(std::size_t size) {
    const std::uint8_t *const bytes = _frame.end();
    const std::size_t part = _failed ? 0 : std::min(size, _length - _frame.size());
    _frame.setSize(_frame.size() + part);
    _ahead.assign(bytes + part, bytes + size);
}

void Channel::takeBuffered(const std::uint8_t *bytes, std::size_t size) {
    const std::size_t used = _ahead.empty() ? extend(bytes, size) : 0;
    _ahead.insert(_ahead.end(), bytes + used, bytes + size);
}

// Goes on with the frame in the making, with what there is of it. Gives the number of bytes used:
// all of them unless the frame is whole.
std::size_t Channel::extend(const std::uint8_t *bytes, std::size_t size) {
    std::size_t used = 0;
    while (_headerFilled < HEADER_BYTES && used < size)
        _length |= std::size_t{bytes[used++]} << (8 * _headerFilled++);
    if (_length > _frameLimit) {
        fail("a frame is longer than is allowed");
    } else if (_headerFilled == HEADER_BYTES) {
        const std::size_t part = std::min(_length - _frame.size(), size - used);
        const std::size_t filled = _frame.size() + part;
        if (filled > _frame.capacity() || !_frame.memory())
            _frame.reserve(std::min(_length, filled * GROWTH));
        _frame.append(bytes + used, part);
        used += part;
    }
    return used;
}

Bytes Channel::finish() {
    _headerFilled = 0;
    _lastLength = std::exchange(_length, 0);
    return std::exchange(_frame, {});
}

int Channel::take(Bytes &payload) {
    if (_keeping) {
        const auto self = shared_from_this();
        if (!fill(false) || !(isWhole() || awaitFrame()))
            return RPC_PORT_ERROR_IO_ERROR;
        payload = finish();
        watch();
        return RPC_PORT_ERROR_NONE;
    }
    if (!_offer)
        return RPC_PORT_ERROR_IO_ERROR;
    payload = std::move(*std::exchange(_offer, nullptr));
    return RPC_PORT_ERROR_NONE;
}

// A simulated application lives in the same process, so the loop has to run until it has answered.
// A real one does not, and no event may come in between.
bool Channel::awaitFrame() {
    Loop &loop = Loop::instance();
    if (loop.isSimulated()) {
        while (isOpen() && !isWhole() && loop.runOnce(false)) {
        }
        return isWhole();
    }
    const std::int64_t deadline = loop.now() + static_cast<std::int64_t>(REPLY_SECONDS * 1e9);
    while (isOpen() && !isWhole() && pollOnce(deadline)) {
    }
    return isWhole();
}

// A reply that came later would be taken for the next one's, so the connection does not outlive it.
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
    if (!isOpen() || _failed || _deserted)
        return RPC_PORT_ERROR_IO_ERROR;
    const std::size_t size = parcel.size();
    if (size > MAX_FRAME_BYTES) {
        dlog_print(DLOG_ERROR, LOG_TAG, "a parcel of %zu bytes is not sent: the limit is %zu", size,
                   MAX_FRAME_BYTES);
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    std::uint8_t header[HEADER_BYTES];
    for (std::size_t i = 0; i < HEADER_BYTES; ++i)
        header[i] = static_cast<std::uint8_t>(size >> (8 * i));
    // Behind a queue nothing is sent directly: frames keep their order.
    std::size_t sent = 0;
    if (_queue.isEmpty() && !transmit(parcel, header, sent))
        return RPC_PORT_ERROR_IO_ERROR;
    return sent < sizeof(header) + size ? enqueue(header, parcel, sent) : RPC_PORT_ERROR_NONE;
}

// What has come before is still delivered.
void Channel::desert() {
    const auto owner = _owner.lock();
    dlog_print(DLOG_INFO, LOG_TAG, "nothing more can be sent to %s: %s",
               owner ? owner->peer() : "a client", std::strerror(errno));
    _deserted = true;
    _queue.clear();
    drain();
    watch();
}

// In one piece if it is one: what takes several costs the system more.
bool Channel::transmit(const Parcel &parcel, const std::uint8_t *header, std::size_t &sent) {
    const Bytes &bytes = parcel.bytes;
    if (parcel.inserts.empty() && bytes.memory()) {
        std::memcpy(bytes.front(), header, HEADER_BYTES);
        return note(::send(_socket.get(), bytes.front(), HEADER_BYTES + bytes.size(),
                           MSG_NOSIGNAL | MSG_DONTWAIT),
                    sent);
    }
    iovec parts[SendQueue::MAX_PARTS]; // more go into the queue
    parts[0] = {const_cast<std::uint8_t *>(header), HEADER_BYTES};
    std::size_t count = 1;
    parcel.forEachPiece([&](const Memory &, const void *data, std::size_t length) {
        if (count < SendQueue::MAX_PARTS)
            parts[count++] = {const_cast<void *>(data), length};
    });
    return transmit(parts, count, sent);
}

bool Channel::transmit(iovec *parts, std::size_t count, std::size_t &sent) {
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = count;
    return note(sendmsg(_socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT), sent);
}

// What has become of a transmission. False: nothing can be sent any more.
bool Channel::note(ssize_t result, std::size_t &sent) {
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
    host::Channel *const channel = host::Channel::find(port);
    if (!h || !channel)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    return host::guarded([&] {
        host::Bytes payload;
        const int result = channel->take(payload);
        if (result == RPC_PORT_ERROR_NONE)
            *h = host::Parcel::make(std::move(payload));
        return result;
    });
}

int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port) {
    host::Channel *const channel = host::Channel::find(port);
    if (!h || !channel)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    return channel->send(*static_cast<host::Parcel *>(h));
}
