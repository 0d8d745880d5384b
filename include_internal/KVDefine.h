// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Names and types that several sources share. */
#ifndef KVDEFINE_H
#define KVDEFINE_H

#include <string>

namespace KVDefine {

/** The daemon's bus name, which is its interface name too. */
inline const std::string BUS_NAME = "org.olvane.kavrel";
/** The object path of the signals that the daemon receives and of its requests to change the output. */
inline const std::string PUBLIC_PATH = "/Org/Olvane/Kavrel";

/** Statuses of operations. 0 is success; other negative statuses are the platform's own. */
inline constexpr int FAILED = -1; /**< the operation failed, or the daemon was busy */
inline constexpr int INVALID_ARGUMENT = -2;
inline constexpr int NOT_SUPPORTED = -4; /**< the output cannot do it */

inline constexpr int NO_ZONE = -1;

/** The source of a gain request. Variables of this type hold any int that a client sends; operations refuse
 *  all but the named values. */
enum eKVGainSrcType : int {
    GAIN_SRC_PLAYER = 2,
    GAIN_SRC_UNMUTE = 3,
};

/** Bits of an audio path: the hardware outputs that a gain request selects. */
inline constexpr int AUDIO_PATH_MAIN_OUT = 1;
inline constexpr int AUDIO_PATH_SUB_OUT = 2;
inline constexpr int AUDIO_PATH_BOTH = AUDIO_PATH_MAIN_OUT | AUDIO_PATH_SUB_OUT;

/** Full gain, in percent. */
inline constexpr int GAIN_MAX = 100;

/** The names of the volume control object's events. */
inline const std::string VOLUME_CHANGED = "VOLUME_CHANGED";
inline const std::string MUTE_CHANGED = "MUTE_CHANGED";
inline const std::string SPEAKER_CHANGED = "SPEAKER_CHANGED";

/** The feature flag of a TV that can show several zones at once. */
inline const std::string MULTIVIEW_FEATURE = "com.norvik/featureconf/multiview.support";

/** The prefix of the settings that the components of external outputs share. */
inline const std::string SCREEN_MIRRORING = "memory/menu/network/screenmirroring/";

/** Setting: the multi-view state, a JSON object. */
inline const std::string MULTIVIEW_INFO_KEY = "memory/multiscreen/info";
/** Setting: 0 while the optical cable is unplugged. */
inline const std::string SPDIF_KEY = "memory/sysman/spdif";
/** Setting: not 0 while the TV mirrors its sound to a mobile device. */
inline const std::string TV2MOBILE_KEY = SCREEN_MIRRORING + "smsrc_status";
/** Setting: the zone that a sub Bluetooth headset holds, -1 for none. */
inline const std::string SUB_BT_ZONE_KEY = "memory/org.olvane.btapp/sub_audio_zoneid";

}  // namespace KVDefine

#endif
