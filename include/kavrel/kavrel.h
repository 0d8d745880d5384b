/* SPDX-FileCopyrightText: The kavrel developers */
/* SPDX-License-Identifier: MIT */
/**
 * Names and numbers of the D-Bus interface of kavreld, for clients in C and C++. The interface description,
 * org.olvane.kavrel.xml, says what each method and signal does.
 */
#ifndef KAVREL_KAVREL_H
#define KAVREL_KAVREL_H

/** The name of the daemon on the system bus. */
#define KAVREL_BUS_NAME "org.olvane.kavrel"
/** The interface of all methods and signals. */
#define KAVREL_INTERFACE "org.olvane.kavrel"
/** The object of the methods, SpeakerVolumeChanged and SpeakerMuteChanged. */
#define KAVREL_OBJECT_PATH "/Org/Olvane/KavrelInternal"
/** The object of SpeakerChangeRequest, and of the signals that clients send to the daemon. */
#define KAVREL_PUBLIC_PATH "/Org/Olvane/Kavrel"

/* The methods: name, arguments, answer. The last element of each answer is an enum kavrel_status. */
#define KAVREL_GET_SPEAKER_SUPPORT_TYPE "GetSpeakerSupportType" /**< () -> (ii) support word, status */
#define KAVREL_SET_SPEAKER_VOLUME "SetSpeakerVolume"            /**< (i) volume -> (i) status */
#define KAVREL_GET_SPEAKER_VOLUME "GetSpeakerVolume"            /**< () -> (ii) volume, status */
#define KAVREL_SET_SPEAKER_MUTE "SetSpeakerMute"                /**< (b) mute -> (i) status */
#define KAVREL_GET_SPEAKER_MUTE "GetSpeakerMute"                /**< () -> (ii) mute, status */
#define KAVREL_APPLY_PLAYER_FADE_IN "ApplyPlayerFadeIn"         /**< (i) audio path -> (i) status */
#define KAVREL_APPLY_UNMUTE_FADE_IN "ApplyUnmuteFadeIn"         /**< (i) audio path -> (i) status */
#define KAVREL_RESET_PLAYER_GAIN "ResetPlayerGain"              /**< (i) audio path -> (i) status */
#define KAVREL_APPLY_GAIN_ON_MUTE "ApplyGainOnMute"             /**< (ii) audio path, gain -> (i) status */

/* The signals of the daemon. */
#define KAVREL_SPEAKER_VOLUME_CHANGED "SpeakerVolumeChanged" /**< (ii) support word, volume */
#define KAVREL_SPEAKER_MUTE_CHANGED "SpeakerMuteChanged"     /**< (ib) support word, mute */
#define KAVREL_SPEAKER_CHANGE_REQUEST "SpeakerChangeRequest" /**< (ii) route, 1 */

/* The signals that clients send to the daemon. */
#define KAVREL_BUDS_CONNECTED "BudsConnected"               /**< (i) reason */
#define KAVREL_BUDS_DISCONNECTED "BudsDisconnected"         /**< (i) reason */
#define KAVREL_SPK_DISCONNECTED "SpkDisconnected"           /**< (is) route, name */
#define KAVREL_APPLY_PULSE_AUDIO_GAIN "ApplyPulseAudioGain" /**< (ii) gain, duration in milliseconds */

/** How a method went. Any other number below 0 is a code of the TV's platform. */
enum kavrel_status {
    KAVREL_DONE = 0,
    KAVREL_FAILED = -1, /**< it failed, or the daemon was busy: try again after a pause */
    KAVREL_INVALID_ARGUMENT = -2,
    KAVREL_NOT_SUPPORTED = -4 /**< the output in use does not support it */
};

/** The bits of a support word: what the output in use can do. Ignore all other bits. */
enum kavrel_support {
    KAVREL_SUPPORT_GET_VOLUME = 0x1,
    KAVREL_SUPPORT_SET_VOLUME = 0x2,
    KAVREL_SUPPORT_GET_MUTE = 0x4,
    KAVREL_SUPPORT_SET_MUTE = 0x8
};

/**
 * The audio path of a gain: the hardware output that a method acts on. With both, a method changes the player gain of the
 * main output alone. The unmute gain changes on both outputs whatever the path, unless a sub Bluetooth zone exists.
 */
enum kavrel_audio_path {
    KAVREL_AUDIO_PATH_MAIN_OUT = 1,
    KAVREL_AUDIO_PATH_SUB_OUT = 2,
    KAVREL_AUDIO_PATH_BOTH = KAVREL_AUDIO_PATH_MAIN_OUT | KAVREL_AUDIO_PATH_SUB_OUT
};

/** The ranges of volumes and gains. */
enum kavrel_range {
    KAVREL_VOLUME_MIN = 0,
    KAVREL_VOLUME_MAX = 100,
    KAVREL_GAIN_MIN = 0, /**< in percent */
    KAVREL_GAIN_MAX = 100
};

#endif
