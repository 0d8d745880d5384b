// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "FakeTv.h"

#include <charconv>

#include "Journal.h"

namespace fake {

namespace {

template <typename Map>
std::optional<typename Map::mapped_type> Lookup(const Map& map, const typename Map::key_type& key) {
    const auto found = map.find(key);
    return found == map.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

std::optional<int> ParseInt(const std::string& text) {
    int value = 0;
    const char* end = text.data() + text.size();
    const auto [parsed, error] = std::from_chars(text.data(), end, value);
    return error == std::errc() && parsed == end ? std::optional(value) : std::nullopt;
}

keynode_t NodeOf(const std::string& key, const std::string& text) {
    return {key, ParseInt(text).value_or(-1), text};
}

void FakeTv::ResetTv() {
    Change([](TvState& state) { state = TvState(); });
}

void FakeTv::ReportOwnChanges(bool report) {
    Change([&](TvState& state) { state.reportOwnChanges = report; });
}

void FakeTv::SetInt(const std::string& key, int value) {
    SetStr(key, std::to_string(value));
}

void FakeTv::SetStr(const std::string& key, const std::string& value) {
    Change([&](TvState& state) { state.settings[key] = value; });
}

void FakeTv::RemoveKey(const std::string& key) {
    Change([&](TvState& state) { state.settings.erase(key); });
}

std::optional<std::string> FakeTv::Value(const std::string& key) const {
    return Lookup(Read(&TvState::settings), key);
}

void FakeTv::SetFeature(const std::string& key, bool value) {
    Change([&](TvState& state) { state.features[key] = value; });
}

void FakeTv::SetRoute(int route) {
    Change([&](TvState& state) { state.route = route; });
}

int FakeTv::Route() const {
    return Read(&TvState::route);
}

void FakeTv::SetZones(const std::map<int, int>& routeByZone) {
    Change([&](TvState& state) { state.zones = routeByZone; });
}

std::map<int, int> FakeTv::Zones() const {
    return Read(&TvState::zones);
}

void FakeTv::SetFocus(std::optional<int> zone) {
    Change([&](TvState& state) { state.focus = zone; });
}

void FakeTv::SetVolume(int volume) {
    Change([&](TvState& state) { state.volume = volume; });
}

int FakeTv::Volume() const {
    return Read(&TvState::volume);
}

void FakeTv::SetMute(bool mute) {
    Change([&](TvState& state) { state.mute = mute; });
}

bool FakeTv::Mute() const {
    return Read(&TvState::mute);
}

void FakeTv::SetGain(int main, int sub) {
    Change([&](TvState& state) { state.gain = {main, sub}; });
}

int FakeTv::MainGainValue() const {
    return Read(&TvState::gain)[static_cast<std::size_t>(Out::MAIN)];
}

int FakeTv::SubGainValue() const {
    return Read(&TvState::gain)[static_cast<std::size_t>(Out::SUB)];
}

void FakeTv::SetEvent(const std::string& event, bool done) {
    Change([&](TvState& state) { state.events[event] = done; });
}

bool FakeTv::Event(const std::string& event) const {
    return Lookup(Read(&TvState::events), event).value_or(false);
}

std::vector<KeyWatch> FakeTv::Watches(const std::string& key) const {
    return Lookup(Read(&TvState::watches), key).value_or(std::vector<KeyWatch>());
}

RegisteredCallback<sound_manager_speaker_changed_cb> FakeTv::RouteRegistration() const {
    return Read(&TvState::routeRegistration);
}

RegisteredCallback<sound_manager_multiview_speaker_selection_changed_cb> FakeTv::ZoneRouteRegistration()
    const {
    return Read(&TvState::zoneRouteRegistration);
}

RegisteredCallback<sound_manager_tv_master_mute_changed_cb> FakeTv::TvMasterMuteRegistration() const {
    return Read(&TvState::tvMasterMuteRegistration);
}

RegisteredCallback<audio_master_changed_cb> FakeTv::VolumeRegistration() const {
    return Read(&TvState::volumeRegistration);
}

RegisteredCallback<audio_master_changed_cb> FakeTv::MuteRegistration() const {
    return Read(&TvState::muteRegistration);
}

std::map<int, RegisteredCallback<rc_audio_focus_changed_cb>> FakeTv::FocusRegistrations() const {
    return Read(&TvState::focusRegistrations);
}

int FakeTv::FireNode(const std::string& key, keynode_t* node) {
    const auto watches = Watches(key);
    for (const KeyWatch& watch : watches) {
        watch.callback(node, watch.data);
    }
    return static_cast<int>(watches.size());
}

int FakeTv::FireKey(const std::string& key, const std::string& value) {
    SetStr(key, value);
    keynode_t node = NodeOf(key, value);
    return FireNode(key, &node);
}

int FakeTv::FireKey(const std::string& key, int value) {
    return FireKey(key, std::to_string(value));
}

int FakeTv::FireRoute(int route) {
    SetRoute(route);
    return Report(RouteRegistration(), route);
}

int FakeTv::FireZoneRoute(int route, int zone) {
    Change([&](TvState& state) { state.zones[zone] = route; });
    return Report(ZoneRouteRegistration(), route, zone);
}

int FakeTv::FireFocus(int zone) {
    SetFocus(zone);
    const auto registrations = FocusRegistrations();
    for (const auto& [id, registration] : registrations) {
        Report(registration, zone);
    }
    return static_cast<int>(registrations.size());
}

int FakeTv::FireVolume(unsigned int volume) {
    SetVolume(static_cast<int>(volume));
    return Report(VolumeRegistration(), volume);
}

int FakeTv::FireMute(unsigned int mute) {
    SetMute(mute != 0);
    return Report(MuteRegistration(), mute);
}

int FakeTv::FireTvMasterMute(unsigned int mute) {
    SetMute(mute != 0);
    return Report(TvMasterMuteRegistration(), mute);
}

}  // namespace fake
