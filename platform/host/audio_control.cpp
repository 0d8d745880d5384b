// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <audio_control.h>

#include <cerrno>
#include <string>

#include "directory.h"

namespace {

// The callers hold locks of their own, so nothing here may touch the delivery lock; and nobody hears of a
// gain that changes.

host::Item MainOutGain() {
    return {"audio/main_out_gain2", host::Range{}};
}
host::Item SubOutGain() {
    return {"audio/sub_out_gain2", host::Range{}};
}

int Get(const host::Item& item, int* gain) {
    return gain != nullptr ? host::Read(item, *gain) : host::Failure(EINVAL);
}

AudioControl MakeTable() {
    AudioControl table{};
    table.get_main_out_gain2 = [](int* gain) { return Get(MainOutGain(), gain); };
    table.set_main_out_gain2 = [](int gain) { return host::Write(MainOutGain(), std::to_string(gain)); };
    table.get_sub_out_gain2 = [](int* gain) { return Get(SubOutGain(), gain); };
    table.set_sub_out_gain2 = [](int gain) { return host::Write(SubOutGain(), std::to_string(gain)); };
    return table;
}

}  // namespace

AudioControl* AudioControl_getInstance(void) {
    static AudioControl table = MakeTable();
    return &table;
}
