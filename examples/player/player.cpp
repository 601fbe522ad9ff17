// SPDX-License-Identifier: Apache-2.0
#include "player.h"

#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

constexpr int MAX_VOLUME = 100;
constexpr double MAX_POSITION_SECONDS = 3600;

// The number under key; null if there is none or params is not JSON.
json findNumber(const std::string &params, const char *key) {
    json parsed = json::parse(params, nullptr, false);
    if (!parsed.is_object() || !parsed.contains(key) || !parsed[key].is_number())
        return nullptr;
    return parsed[key];
}

bool isWithin(const json &number, double limit) {
    return number.is_number() && number.get<double>() >= 0 && number.get<double>() <= limit;
}

} // namespace

std::string Player::play() {
    _playing = true;
    return "playing";
}

std::string Player::pause() {
    _playing = false;
    return "paused";
}

std::string Player::setVolume(const std::string &params) {
    json volume = findNumber(params, "volume");
    if (!volume.is_number_integer() || !isWithin(volume, MAX_VOLUME))
        return R"(error: set_volume expects {"volume": N} with a whole N from 0 to 100)";
    _volume = volume.get<int>();
    return "volume " + std::to_string(_volume);
}

std::string Player::seek(const std::string &params) {
    json position = findNumber(params, "position");
    if (!isWithin(position, MAX_POSITION_SECONDS))
        return R"(error: seek expects {"position": SECONDS} with SECONDS from 0 to 3600)";
    _positionSeconds = position.get<double>();
    return "position " + position.dump();
}

std::string Player::shuffle() {
    _shuffled = true;
    return "shuffled";
}

std::string Player::state() const {
    return json{{"playing", _playing},
                {"shuffled", _shuffled},
                {"volume", _volume},
                {"position", _positionSeconds}}
        .dump();
}
