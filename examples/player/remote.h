// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <Ecore.h>
#include <nelvo.h>

#include "player.h"

// Lets a Nelvo client drive the player: one action per operation, and some that take their time.
//
//   seek           is answered 0.2 s later; a newer seek takes its place
//   load_playlist  is answered at once; "shuffle" is there when the playlist has been read, 0.08 s
//                  later. A client need not wait for that: the library keeps its request until then
//   record         is never answered, as if the application had hung; the library does it after 30
//   s
//
// Lives while the library is initialised, as the registrations point to it.
class Remote {
public:
    explicit Remote(Player &player) : _player(player) {}
    ~Remote();
    Remote(const Remote &) = delete;
    Remote &operator=(const Remote &) = delete;

    // NELVO_ERROR_NONE, or the first registration's error.
    int registerAll();

private:
    static void _playCb(void *handler, bundle *params, void *data);
    static void _pauseCb(void *handler, bundle *params, void *data);
    static void _setVolumeCb(void *handler, bundle *params, void *data);
    static void _seekCb(void *handler, bundle *params, void *data);
    static void _loadPlaylistCb(void *handler, bundle *params, void *data);
    static void _shuffleCb(void *handler, bundle *params, void *data);
    static void _recordCb(void *handler, bundle *params, void *data);
    static void _stateCb(void *handler, void *data);

    static Eina_Bool _soughtCb(void *data);
    static Eina_Bool _playlistReadCb(void *data);

    Player &_player;
    Ecore_Timer *_seekTimer = nullptr; // null: no seek is under way
    void *_seekHandler = nullptr;      // the library's
    std::string _seekParams;
    Ecore_Timer *_playlistTimer = nullptr; // null: no playlist is being read
};
