// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The bytes are the text of the multi-view setting, as any process on the TV may write it. */
#include <json/json.h>

#include <memory>

#include "FakeSeam.h"
#include "Target.h"
#include "VolumeControlImpl.h"

namespace {

constexpr const char* VIEW_KEY = "memory/multiscreen/info";

/** Whether the text is an object whose member "mode" is the text "on". */
bool IsOn(const std::string& text) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value root;
    bool isParsed = false;
    try {
        isParsed = reader->parse(text.data(), text.data() + text.size(), &root, nullptr);
    } catch (const Json::Exception&) {
        return false;
    }
    return isParsed && root.isObject() && root["mode"].isString() && root["mode"].asString() == "on";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fake::FakeSeam& seam = fake::FakeSeam::Get();
    static const auto& control = *std::make_unique<NKavrel::VolumeControlImpl>().release();
    static_cast<void>(control);
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const std::string text = bytes.c_str();  // a setting ends at a NUL
    seam.journal.DropLogLines(true);
    seam.SetZones({{1, 0}});
    seam.SetFocus(1);
    seam.Clear();

    // Some reports have no text, or no node at all; they change nothing.
    keynode_t empty = {VIEW_KEY, 0, std::nullopt};
    seam.FireNode(VIEW_KEY, size % 2 == 0 ? &empty : nullptr);
    if (size % 5 == 0) {
        seam.SetFocus(std::nullopt);  // it cannot be read then
    }

    seam.FireKey(VIEW_KEY, text);
    const bool isOn = seam.journal.Calls("rc_get_audio_focus").Count() > 0;
    fuzz::Require(isOn == IsOn(text), "the report of the mode is understood");

    // A report of the cable reads the setting again, for the route.
    seam.FireKey("memory/sysman/spdif", 0);
    const bool asksZone =
        seam.journal.Calls("sound_manager_get_multiview_speaker_selection_with_zone_id").Count() > 0;
    fuzz::Require(asksZone == isOn, "the setting is understood like its report");

    seam.RemoveKey(VIEW_KEY);
    seam.Clear();
    seam.FireKey("memory/sysman/spdif", 0);
    fuzz::Require(
        seam.journal.Calls("sound_manager_get_multiview_speaker_selection_with_zone_id").Count() == 0,
        "without the setting there is a single view");
    return 0;
}
