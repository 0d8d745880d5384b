// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <audio_control.h>

#include <cerrno>
#include <string>

#include "seam.h"

namespace {

// The callers hold locks of their own, so nothing here may take the delivery lock. Changes of a gain are not
// reported.

int Get(const host::NamedValue& value, int* gain) {
    return gain != nullptr ? host::Result(host::Read(value, *gain)) : host::FailureCode(EINVAL);
}

int Set(const host::NamedValue& value, int gain) {
    return host::Result(host::Write(value, std::to_string(gain)));
}

AudioControl MakeTable() {
    AudioControl table{};
    table.get_main_out_gain2 = [](int* gain) { return Get(host::MAIN_OUT_GAIN, gain); };
    table.set_main_out_gain2 = [](int gain) { return Set(host::MAIN_OUT_GAIN, gain); };
    table.get_sub_out_gain2 = [](int* gain) { return Get(host::SUB_OUT_GAIN, gain); };
    table.set_sub_out_gain2 = [](int gain) { return Set(host::SUB_OUT_GAIN, gain); };
    return table;
}

}  // namespace

AudioControl* AudioControl_getInstance(void) {
    static AudioControl table = MakeTable();
    return &table;
}
