// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Audio control: the gains of the audio hardware behind the master volume. */
#ifndef AUDIO_CONTROL_H
#define AUDIO_CONTROL_H

#include <assert.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The library's table of functions. Only the four named ones may be called; the reserved entries keep the
 * others in their places and may be null.
 *
 * A gain is a percentage: 100 leaves the sound as it is. Any 32-bit integer is stored and read back. The
 * functions wait for no callback of any interface, so any thread may call them with locks of its own held. A
 * result of 0 is success, any other the platform's own negative code; on failure `*gain` and the stored gain
 * are as they were.
 */
typedef struct AudioControl {
    void (*reserved_1)(void);
    void (*reserved_2)(void);
    void (*reserved_3)(void);
    void (*reserved_4)(void);
    void (*reserved_5)(void);
    void (*reserved_6)(void);
    void (*reserved_7)(void);
    void (*reserved_8)(void);
    void (*reserved_9)(void);
    void (*reserved_10)(void);
    void (*reserved_11)(void);
    void (*reserved_12)(void);
    void (*reserved_13)(void);
    void (*reserved_14)(void);
    void (*reserved_15)(void);
    void (*reserved_16)(void);
    void (*reserved_17)(void);
    void (*reserved_18)(void);
    int (*get_main_out_gain2)(int* gain);
    int (*set_main_out_gain2)(int gain);
    void (*reserved_21)(void);
    void (*reserved_22)(void);
    void (*reserved_23)(void);
    void (*reserved_24)(void);
    void (*reserved_25)(void);
    void (*reserved_26)(void);
    void (*reserved_27)(void);
    void (*reserved_28)(void);
    void (*reserved_29)(void);
    void (*reserved_30)(void);
    void (*reserved_31)(void);
    int (*get_sub_out_gain2)(int* gain);
    int (*set_sub_out_gain2)(int gain);
} AudioControl;

static_assert(offsetof(AudioControl, get_main_out_gain2) == 18 * sizeof(void (*)(void)), "entry 19");
static_assert(offsetof(AudioControl, set_main_out_gain2) == 19 * sizeof(void (*)(void)), "entry 20");
static_assert(offsetof(AudioControl, get_sub_out_gain2) == 31 * sizeof(void (*)(void)), "entry 32");
static_assert(offsetof(AudioControl, set_sub_out_gain2) == 32 * sizeof(void (*)(void)), "entry 33");

/**
 * @return the one table of the process, which lives as long as the process; null if there is no audio
 * hardware
 */
AudioControl* AudioControl_getInstance(void);

#ifdef __cplusplus
}
#endif

#endif
