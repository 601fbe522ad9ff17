// SPDX-License-Identifier: Apache-2.0
#include "remote.h"

namespace {

constexpr double SEEK_SECONDS = 0.2;
constexpr double READ_PLAYLIST_SECONDS = 0.08; // within the library's wait for a registration

Remote &remoteOf(void *data) {
    return *static_cast<Remote *>(data);
}

std::string paramsOf(bundle *request) {
    char *params = nullptr;
    if (bundle_get_str(request, "actionParams", &params) != BUNDLE_ERROR_NONE)
        return "";
    return params;
}

void complete(void *handler, const std::string &result) {
    nelvo_complete_action_execution(handler, result.c_str());
}

void stop(Ecore_Timer *&timer) {
    if (timer)
        ecore_timer_del(timer);
    timer = nullptr;
}

} // namespace

Remote::~Remote() {
    stop(_seekTimer);
    stop(_playlistTimer);
}

int Remote::registerAll() {
    const struct {
        const char *actionId;
        nelvo_action_execution_cb callback;
    } actions[] = {
        {"play", _playCb},
        {"pause", _pauseCb},
        {"set_volume", _setVolumeCb},
        {"seek", _seekCb},
        {"load_playlist", _loadPlaylistCb},
        {"record", _recordCb},
    };
    int error = nelvo_set_app_state_request_cb(_stateCb, this);
    for (const auto &action : actions)
        if (error == NELVO_ERROR_NONE)
            error = nelvo_set_action_execution_cb(action.actionId, action.callback, this);
    return error;
}

void Remote::_playCb(void *handler, bundle *, void *data) {
    complete(handler, remoteOf(data)._player.play());
}

void Remote::_pauseCb(void *handler, bundle *, void *data) {
    complete(handler, remoteOf(data)._player.pause());
}

void Remote::_setVolumeCb(void *handler, bundle *params, void *data) {
    complete(handler, remoteOf(data)._player.setVolume(paramsOf(params)));
}

void Remote::_seekCb(void *handler, bundle *params, void *data) {
    Remote &self = remoteOf(data);
    stop(self._seekTimer);
    self._seekHandler = handler;
    self._seekParams = paramsOf(params); // the bundle is gone when the timer fires
    self._seekTimer = ecore_timer_add(SEEK_SECONDS, _soughtCb, &self);
    if (!self._seekTimer)
        complete(handler, "error: out of memory");
}

Eina_Bool Remote::_soughtCb(void *data) {
    Remote &self = remoteOf(data);
    self._seekTimer = nullptr;
    complete(self._seekHandler, self._player.seek(self._seekParams));
    return ECORE_CALLBACK_CANCEL;
}

void Remote::_loadPlaylistCb(void *handler, bundle *, void *data) {
    Remote &self = remoteOf(data);
    stop(self._playlistTimer);
    nelvo_unset_action_execution_cb("shuffle"); // of the playlist before
    self._playlistTimer = ecore_timer_add(READ_PLAYLIST_SECONDS, _playlistReadCb, &self);
    complete(handler, self._playlistTimer ? "loading" : "error: out of memory");
}

Eina_Bool Remote::_playlistReadCb(void *data) {
    remoteOf(data)._playlistTimer = nullptr;
    nelvo_set_action_execution_cb("shuffle", _shuffleCb, data);
    return ECORE_CALLBACK_CANCEL;
}

void Remote::_shuffleCb(void *handler, bundle *, void *data) {
    complete(handler, remoteOf(data)._player.shuffle());
}

void Remote::_recordCb(void *, bundle *, void *) {}

void Remote::_stateCb(void *handler, void *data) {
    nelvo_complete_app_state_request(handler, remoteOf(data)._player.state().c_str());
}
