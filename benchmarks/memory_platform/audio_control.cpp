// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <audio_control.h>

#include "tv.h"

AudioControl* AudioControl_getInstance(void) {
    static AudioControl table = [] {
        AudioControl made{};
        made.get_main_out_gain2 = [](int* gain) {
            *gain = memory::GetTv().mainGain;
            return 0;
        };
        made.set_main_out_gain2 = [](int gain) {
            memory::GetTv().mainGain = gain;
            return 0;
        };
        made.get_sub_out_gain2 = [](int* gain) {
            *gain = memory::GetTv().subGain;
            return 0;
        };
        made.set_sub_out_gain2 = [](int gain) {
            memory::GetTv().subGain = gain;
            return 0;
        };
        return made;
    }();
    return &table;
}
