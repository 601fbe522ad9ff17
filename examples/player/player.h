// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

// What a media player knows about itself; there is no media behind it.
//
// Operations that take params get them as the client sent them, JSON by agreement, and check them.
// All return the text to answer with, which says what is wrong when they refuse.
class Player {
public:
    std::string play();
    std::string pause();
    std::string setVolume(const std::string &params); // {"volume": 0..100}
    std::string seek(const std::string &params);      // {"position": seconds}
    std::string shuffle();

    // The whole state as JSON.
    std::string state() const;

private:
    bool _playing = false;
    bool _shuffled = false;
    int _volume = 50;
    double _positionSeconds = 0;
};
