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

#include "log_tag.h"
#include "loop.h"
#include "parcel.h"

namespace host {

namespace {

constexpr std::size_t HEADER_BYTES = 4;
constexpr std::size_t READ_BYTES = std::size_t{64} << 10;
constexpr std::size_t KEPT_BYTES = std::size_t{4} << 10; // of an empty buffer, per channel
constexpr char SPOKE_UNASKED[] = "it sent something on the callback channel";

SlotTable<Channel *, 3> &ports() {
    static auto &table = *new SlotTable<Channel *, 3>;
    return table;
}

bool isTemporary(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// Empties a buffer; after a burst its memory goes back.
void clear(std::vector<std::uint8_t> &buffer, std::size_t &start) {
    start = 0;
    buffer.clear();
    if (buffer.capacity() > KEPT_BYTES) {
        std::vector<std::uint8_t>().swap(buffer);
    }
}

} // namespace

std::shared_ptr<Channel> Channel::open(UniqueFd socket, std::size_t frameLimit,
                                       std::weak_ptr<ChannelOwner> owner) {
    auto channel = std::make_shared<Channel>(std::move(socket));
    channel->_frameLimit = frameLimit;
    channel->_owner = std::move(owner);
    channel->_port = ports().add(channel.get());
    channel->_handler = Loop::instance().addHandler(channel->_socket.get(), ECORE_FD_READ,
                                                    onReadyCb, channel.get(), nullptr, nullptr);
    return channel->_handler ? channel : nullptr;
}

std::shared_ptr<Channel> Channel::find(rpc_port_h port) {
    Channel *const *const channel = ports().find(port);
    return channel ? (*channel)->shared_from_this() : nullptr;
}

Channel::~Channel() {
    close();
    ports().remove(_port);
}

void Channel::close() {
    Loop::instance().deleteTimer(std::exchange(_moreTimer, nullptr));
    Loop::instance().deleteHandler(std::exchange(_handler, nullptr));
    _socket.reset();
}

void Channel::setMode(Mode mode) {
    _mode = mode;
    if (mode == Mode::KEEP && !_framing) {
        startFromAhead();
    } else if (mode == Mode::DELIVER && (_framing || !_ahead.empty())) {
        wantTurn();
    } else if (mode == Mode::SILENT && (_framing || !_ahead.empty())) {
        fail(SPOKE_UNASKED);
    }
    watch();
}

void Channel::drain() {
    _draining = true;
    wantTurn();
}

bool Channel::isReading() const {
    return _mode != Mode::HOLD && !(_mode == Mode::KEEP && isWhole());
}

void Channel::watch() {
    const unsigned flags = (isReading() ? unsigned{ECORE_FD_READ} : 0U) |
                           (_queue.empty() ? 0U : unsigned{ECORE_FD_WRITE});
    Loop::instance().setFlags(_handler, flags);
}

void Channel::wantTurn() {
    if (_moreTimer || !isOpen()) {
        return;
    }
    try {
        _moreTimer = Loop::instance().addTimer(0, onMoreCb, this, true);
    } catch (const std::bad_alloc &) {
        fail("out of memory");
    }
}

void Channel::fail(const char *reason, log_priority priority) {
    if (!_failed && isOpen()) {
        const auto owner = _owner.lock();
        dlog_print(priority, LOG_TAG, "the connection with %s is ended: %s",
                   owner ? owner->peer() : "a client", reason);
        shutdown(_socket.get(), SHUT_RDWR);
    }
    _failed = true;
}

Eina_Bool Channel::onReadyCb(void *data, Ecore_Fd_Handler *handler) {
    const auto self = static_cast<Channel *>(data)->shared_from_this();
    const bool broken = ecore_main_fd_handler_active_get(handler, ECORE_FD_ERROR);
    const bool readable = ecore_main_fd_handler_active_get(handler, ECORE_FD_READ);
    if (broken && !self->isReading()) {
        self->end();
        return ECORE_CALLBACK_RENEW;
    }
    if (ecore_main_fd_handler_active_get(handler, ECORE_FD_WRITE)) {
        self->flush();
    }
    if (readable) {
        self->turn(true);
    }
    return ECORE_CALLBACK_RENEW;
}

Eina_Bool Channel::onMoreCb(void *data) {
    const auto self = static_cast<Channel *>(data)->shared_from_this();
    // First: a timer that is being called does not count as one that will be.
    self->_moreTimer = nullptr;
    if (self->isReading()) {
        self->turn(self->_draining);
    }
    return ECORE_CALLBACK_CANCEL;
}

void Channel::turn(bool readable) {
    const auto owner = _owner.lock();
    if (!_framing) {
        startFromAhead();
    }
    const bool alive = !_failed && (isWhole() || !readable || receive());
    if (!alive || _failed || !owner) {
        end();
    } else if (_mode == Mode::DELIVER && isWhole()) {
        deliver(*owner);
    } else {
        watch();
    }
}

void Channel::deliver(ChannelOwner &owner) {
    std::vector<std::uint8_t> outerOffer = std::exchange(_offer, finishFrame());
    const bool outerOffered = std::exchange(_offered, true);
    if (!_ahead.empty() || _draining) {
        wantTurn();
    }
    try {
        owner.onFrame(*this);
    } catch (const std::bad_alloc &) {
        fail("out of memory");
    } catch (...) {
        fail("an exception has left a callback");
    }
    _offer = std::move(outerOffer);
    _offered = outerOffered;
}

void Channel::end() {
    if (!isOpen()) {
        return;
    }
    close();
    if (const auto owner = _owner.lock()) {
        owner->onEnd(*this);
    }
}

// One read. False: there will be nothing more.
bool Channel::receive() {
    ssize_t count = 0;
    try {
        count = _framing ? readFrame() : readAhead();
    } catch (const std::bad_alloc &) {
        fail("out of memory");
        return false;
    }
    if (count < 0) {
        return isTemporary(errno) && !_draining;
    }
    if (count > 0 && _mode == Mode::SILENT) {
        fail(SPOKE_UNASKED);
    } else if (count == 0 && (_framing || !_ahead.empty())) {
        fail("its last frame is incomplete");
    }
    return count > 0 && !_failed;
}

// The buffer is shared: it is empty again before anybody else runs.
ssize_t Channel::readAhead() {
    static std::uint8_t buffer[READ_BYTES];
    const ssize_t count = recv(_socket.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
    if (count <= 0) {
        return count;
    }
    const auto size = static_cast<std::size_t>(count);
    const std::size_t used = _ahead.empty() ? startFrame(buffer, size) : 0;
    _ahead.erase(_ahead.begin(), _ahead.begin() + static_cast<std::ptrdiff_t>(_aheadStart));
    _aheadStart = 0;
    _ahead.insert(_ahead.end(), buffer + used, buffer + size);
    if (!_framing) {
        startFromAhead();
    }
    return count;
}

// Straight into the frame. It is enlarged fourfold each time, so that little is copied and what is
// set aside stays in proportion to what has come.
ssize_t Channel::readFrame() {
    if (_frame.size() == _filled) {
        _frame.resize(std::min(_length, std::max(_filled * 4, READ_BYTES)));
    }
    const ssize_t count =
        recv(_socket.get(), _frame.data() + _filled, _frame.size() - _filled, MSG_DONTWAIT);
    _filled += count > 0 ? static_cast<std::size_t>(count) : 0;
    return count;
}

void Channel::startFromAhead() {
    try {
        _aheadStart += startFrame(_ahead.data() + _aheadStart, _ahead.size() - _aheadStart);
    } catch (const std::bad_alloc &) {
        fail("out of memory");
    }
    if (_aheadStart == _ahead.size()) {
        clear(_ahead, _aheadStart);
    }
}

// Begins the next frame with what there is of it. Gives the number of bytes used.
std::size_t Channel::startFrame(const std::uint8_t *bytes, std::size_t size) {
    if (size < HEADER_BYTES) {
        return 0;
    }
    const std::size_t length = std::size_t{bytes[0]} | std::size_t{bytes[1]} << 8 |
                               std::size_t{bytes[2]} << 16 | std::size_t{bytes[3]} << 24;
    if (length > _frameLimit) {
        fail("a frame is longer than is allowed");
        return size;
    }
    const std::size_t part = std::min(length, size - HEADER_BYTES);
    _frame.assign(bytes + HEADER_BYTES, bytes + HEADER_BYTES + part);
    _framing = true;
    _length = length;
    _filled = part;
    return HEADER_BYTES + part;
}

std::vector<std::uint8_t> Channel::finishFrame() {
    _framing = false;
    return std::exchange(_frame, {});
}

int Channel::take(std::vector<std::uint8_t> &payload) {
    if (_mode == Mode::KEEP) {
        const auto self = shared_from_this();
        if (!isWhole() && !awaitFrame()) {
            return RPC_PORT_ERROR_IO_ERROR;
        }
        payload = finishFrame();
        startFromAhead();
        watch();
        return RPC_PORT_ERROR_NONE;
    }
    if (!std::exchange(_offered, false)) {
        return RPC_PORT_ERROR_IO_ERROR;
    }
    payload = std::exchange(_offer, {});
    return RPC_PORT_ERROR_NONE;
}

// A simulated application lives in the same process, so the loop has to run until it has answered.
// A real one does not, and no event may come in between.
bool Channel::awaitFrame() {
    Loop &loop = Loop::instance();
    if (loop.isSimulated()) {
        while (isOpen() && !isWhole() && loop.runOnce(false)) {
        }
        return isOpen() && isWhole();
    }
    const std::int64_t deadline = loop.now() + static_cast<std::int64_t>(REPLY_SECONDS * 1e9);
    while (isOpen() && !_failed && !isWhole()) {
        if (!pollOnce(deadline)) {
            return false;
        }
    }
    return isOpen() && !_failed;
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
    state.events = static_cast<short>(_queue.empty() ? POLLIN : POLLIN | POLLOUT);
    const int ready = poll(&state, 1, static_cast<int>(left / 1'000'000 + 1));
    if (ready > 0 && (state.revents & POLLOUT)) {
        flush();
    }
    if (ready > 0 && (state.revents & ~POLLOUT) && !receive()) {
        return isWhole();
    }
    return true;
}

int Channel::send(const std::vector<std::uint8_t> &payload) {
    if (!isOpen() || _failed) {
        return RPC_PORT_ERROR_IO_ERROR;
    }
    if (payload.size() > MAX_FRAME_BYTES) {
        dlog_print(DLOG_ERROR, LOG_TAG, "a parcel of %zu bytes is not sent: the limit is %zu",
                   payload.size(), MAX_FRAME_BYTES);
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    std::uint8_t header[HEADER_BYTES];
    for (std::size_t i = 0; i < HEADER_BYTES; ++i) {
        header[i] = static_cast<std::uint8_t>(payload.size() >> (8 * i));
    }
    iovec parts[] = {{header, sizeof(header)},
                     {const_cast<std::uint8_t *>(payload.data()), payload.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    // Behind a queue nothing is sent directly: frames keep their order.
    const ssize_t sent =
        _queue.empty() ? sendmsg(_socket.get(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) : 0;
    if (sent < 0 && !isTemporary(errno)) {
        fail("the other side is gone", DLOG_INFO);
        return RPC_PORT_ERROR_IO_ERROR;
    }
    return enqueue(header, payload, sent < 0 ? 0 : static_cast<std::size_t>(sent));
}

int Channel::enqueue(const std::uint8_t *header, const std::vector<std::uint8_t> &payload,
                     std::size_t sent) {
    const std::size_t left = HEADER_BYTES + payload.size() - sent;
    if (left == 0) {
        return RPC_PORT_ERROR_NONE;
    }
    if (_queue.size() - _queueStart + left > MAX_QUEUE_BYTES) {
        fail("it does not read what it is sent");
        return RPC_PORT_ERROR_IO_ERROR;
    }
    try {
        if (_queueStart > _queue.size() / 2) {
            _queue.erase(_queue.begin(), _queue.begin() + static_cast<std::ptrdiff_t>(_queueStart));
            _queueStart = 0;
        }
        const std::size_t ofHeader = std::min(sent, HEADER_BYTES);
        _queue.insert(_queue.end(), header + ofHeader, header + HEADER_BYTES);
        const auto rest = static_cast<std::ptrdiff_t>(sent - ofHeader);
        _queue.insert(_queue.end(), payload.begin() + rest, payload.end());
    } catch (const std::bad_alloc &) {
        fail("out of memory");
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
    watch();
    return RPC_PORT_ERROR_NONE;
}

void Channel::flush() {
    if (_queue.empty()) {
        return;
    }
    const ssize_t sent = ::send(_socket.get(), _queue.data() + _queueStart,
                                _queue.size() - _queueStart, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && !isTemporary(errno)) {
        fail("the other side is gone", DLOG_INFO);
        return;
    }
    _queueStart += sent > 0 ? static_cast<std::size_t>(sent) : 0;
    if (_queueStart == _queue.size()) {
        clear(_queue, _queueStart);
    }
    watch();
}

} // namespace host

int rpc_port_parcel_create_from_port(rpc_port_parcel_h *h, rpc_port_h port) {
    const auto channel = host::Channel::find(port);
    if (!h || !channel) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    try {
        auto parcel = std::make_unique<host::Parcel>();
        const int result = channel->take(parcel->bytes);
        if (result == RPC_PORT_ERROR_NONE) {
            *h = parcel.release();
        }
        return result;
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
}

int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port) {
    const auto channel = host::Channel::find(port);
    if (!h || !channel) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    return channel->send(static_cast<host::Parcel *>(h)->bytes);
}
