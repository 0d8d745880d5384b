// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The bytes are keys, names and texts with which programs use the TV directory: through the seam, and by writing
 * files and folders themselves.
 */
#include <audio_hal.h>
#include <lwipc.h>
#include <resource_center.h>
#include <sound_manager.h>
#include <system_info.h>
#include <vconf.h>

#include <algorithm>
#include <climits>
#include <optional>
#include <set>
#include <sstream>

#include "Target.h"
#include "TvFolder.h"

namespace fs = std::filesystem;

namespace {

using fuzz::Bytes;
using fuzz::Require;

/** A key is made of parts that neither are empty nor begin with a dot. */
bool IsGoodKey(const std::string& key) {
    std::istringstream parts(key + '/');
    bool isGood = !key.empty();
    for (std::string part; std::getline(parts, part, '/');) {
        isGood = isGood && !part.empty() && part.front() != '.';
    }
    return isGood;
}

std::optional<std::string> ReadSetting(const std::string& key) {
    char* const text = vconf_get_str(key.c_str());
    const std::optional<std::string> copy = text == nullptr ? std::nullopt : std::optional<std::string>(text);
    std::free(text);
    return copy;
}

/** The integer in a text, which may have blanks around it. */
std::optional<int> IntegerIn(std::string text) {
    const auto isBlank = [](char letter) { return letter == ' ' || letter == '\t'; };
    text.erase(text.begin(), std::ranges::find_if_not(text, isBlank));
    while (!text.empty() && isBlank(text.back())) {
        text.pop_back();
    }
    const bool isNegative = text.starts_with('-');
    const std::string digits = text.substr(isNegative ? 1 : 0);
    if (digits.empty() || !std::ranges::all_of(digits, [](char c) { return c >= '0' && c <= '9'; })) {
        return std::nullopt;
    }
    long long number = 0;
    for (const char digit : digits) {
        number = std::min(number * 10 + (digit - '0'), 1LL << 40);
    }
    number = isNegative ? -number : number;
    return number < INT_MIN || number > INT_MAX ? std::nullopt : std::optional(static_cast<int>(number));
}

/** Compares two readings of a setting: as a text, and as an integer. */
void RequireReads(const std::string& key, const std::optional<std::string>& expected) {
    Require(ReadSetting(key) == expected, "a setting is read as it was written");
    int number = 7;
    const auto integer = expected ? IntegerIn(*expected) : std::nullopt;
    Require((vconf_get_int(key.c_str(), &number) == 0) == integer.has_value(), "integers alone are integers");
    Require(number == integer.value_or(7), "an integer is read as it was written");
}

void SetSetting(Bytes& bytes) {
    const std::string key = "memory/" + std::string(bytes.Text(bytes.Byte() % 24).c_str());
    const std::string text = bytes.Text(bytes.Byte()).c_str();
    const auto before = std::distance(fs::recursive_directory_iterator(fuzz::TvFolder()), {});
    const bool isSet = vconf_set_str(key.c_str(), text.c_str()) == 0;
    Require(!isSet || IsGoodKey(key), "a bad key is refused");
    if (isSet) {
        RequireReads(key, text);
    } else if (!IsGoodKey(key)) {
        const auto after = std::distance(fs::recursive_directory_iterator(fuzz::TvFolder()), {});
        Require(before == after, "a refused key makes no file");
        Require(!ReadSetting(key), "a bad key cannot be read");
    }
}

/** Another program writes a file with its own hands. */
void WriteFile(Bytes& bytes) {
    const std::string written = bytes.Text(bytes.Byte());
    const fs::path file = fuzz::TvFolder() / "settings/memory/raw";
    fs::remove_all(file);
    fuzz::Put(file, written);
    std::optional<std::string> expected = written;
    if (written.ends_with('\n')) {
        expected->pop_back();
    }
    if (expected->find('\0') != std::string::npos) {
        expected.reset();
    }
    RequireReads("memory/raw", expected);
}

void SetInteger(Bytes& bytes) {
    const int number = bytes.Number();
    Require(vconf_set_int("memory/number", number) == 0, "any integer can be set");
    RequireReads("memory/number", std::to_string(number));
}

void RaiseEvent(Bytes& bytes) {
    const std::string name = bytes.Text(bytes.Byte() % 32).c_str();
    const bool isName = !name.empty();
    Require((LwipcEventDone(name.c_str()) == 0) == isName, "each name is an event");
    Require(LwipcIsDone(name.c_str()) == 1 || !isName, "a raised event is done");
    Require((LwipcResetEvent(name.c_str()) == 0) == isName, "each event can be reset");
    Require(LwipcIsDone(name.c_str()) == 0 || !isName, "a reset event is not done");
}

void ListZones(Bytes& bytes) {
    std::string name = bytes.Text(1 + bytes.Byte() % 12).c_str();
    std::ranges::replace(name, '/', '-');
    std::error_code error;
    const fs::path zones = fuzz::TvFolder() / "sound/zones";
    const bool isMade = !name.empty() && fs::create_directory(zones / name, error);
    rc_zone_list_h list = nullptr;
    Require(rc_get_zone_list(&list) == 0, "the zones can be listed");
    std::set<std::string> found;
    rc_zone_h zone = nullptr;
    while (rc_get_next_zone(list, &zone) == 0) {
        int id = 0;
        Require(rc_get_zone_id(zone, &id) == 0, "each zone has an id");
        found.insert(std::to_string(id));
        sound_tv_output_route_e route = 3;
        Require(sound_manager_set_multiview_speaker_selection_with_zone_id(5, id) == 0, "a zone has a route");
        Require(sound_manager_get_multiview_speaker_selection_with_zone_id(&route, id) == 0 && route == 5,
                "the route of a zone is read as it was set");
    }
    Require(rc_free_zone_list(list) == 0, "a list can be freed");
    const auto id = IntegerIn(name);
    const bool isZone = isMade && id && std::to_string(*id) == name;
    Require(found.contains(name) == isZone, "folders with a plain integer as their name are zones");
    if (isMade) {
        fs::remove_all(zones / name);
    }
}

void SetVolume(Bytes& bytes) {
    const int volume = bytes.Number();
    int read = -1;
    const bool isSet = audio_set_master_volume(volume, 1) == 0;
    Require(isSet == (volume >= 0 && volume <= 100), "a volume is a percentage");
    Require(audio_get_master_volume(&read) == 0 && (!isSet || read == volume),
            "the volume is read as it was set");
    fuzz::Put(fuzz::TvFolder() / "features/fuzz", bytes.Text(bytes.Byte() % 8));
    bool feature = false;
    static_cast<void>(system_info_get_custom_bool("fuzz", &feature));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static constexpr auto STEPS = {SetSetting, WriteFile, SetInteger, RaiseEvent, ListZones, SetVolume};
    const fs::path settings = fuzz::TvFolder() / "settings/memory";
    int volume = 0;
    Require(audio_get_master_volume(&volume) == 0, "the TV is there");
    Bytes bytes(data, size);
    while (!bytes.IsEmpty()) {
        STEPS.begin()[bytes.Byte() % STEPS.size()](bytes);
    }
    fs::remove_all(settings);
    fs::create_directory(settings);
    return 0;
}
