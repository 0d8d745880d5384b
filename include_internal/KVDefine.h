// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Names and types that several sources share. */
#ifndef KVDEFINE_H
#define KVDEFINE_H

#include <string>

namespace KVDefine {

/** The daemon's place on the bus; its methods have an object of their own. */
inline constexpr const char* BUS_NAME = "org.olvane.kavrel";
inline constexpr const char* PUBLIC_PATH = "/Org/Olvane/Kavrel";

/** Statuses of operations: failed or busy, a bad argument, nothing this output can do. 0 is success, other
 *  negative ones are the platform's own. */
inline constexpr int FAILED = -1;
inline constexpr int INVALID_ARGUMENT = -2;
inline constexpr int NOT_SUPPORTED = -4;

/** Output routes with rules of their own. */
inline constexpr int TV_SPEAKER_ROUTE = 0;
inline constexpr int MULTI_OUTPUT_ROUTE = 6;

inline constexpr int NO_ZONE = -1;

/** Where a gain request comes from. Any int may be carried; only the named values are accepted. */
enum eKVGainSrcType : int {
    GAIN_SRC_PLAYER = 2,
    GAIN_SRC_UNMUTE = 3,
};

/** Audio outputs, as a bit mask. */
inline constexpr int AUDIO_PATH_MAIN_OUT = 1;
inline constexpr int AUDIO_PATH_SUB_OUT = 2;
inline constexpr int AUDIO_PATH_BOTH = AUDIO_PATH_MAIN_OUT | AUDIO_PATH_SUB_OUT;

/** Full gain, in percent. */
inline constexpr int GAIN_MAX = 100;

/** Events of the volume control object. */
inline const std::string VOLUME_CHANGED = "VOLUME_CHANGED";
inline const std::string MUTE_CHANGED = "MUTE_CHANGED";
inline const std::string SPEAKER_CHANGED = "SPEAKER_CHANGED";

/** Feature flag: the TV can show several zones at once. */
inline const std::string MULTIVIEW_FEATURE = "com.norvik/featureconf/multiview.support";

/** Settings: the multi-view state (JSON), the optical cable (0: pulled), mirroring to a mobile device. */
inline const std::string MULTIVIEW_INFO_KEY = "memory/multiscreen/info";
inline const std::string SPDIF_KEY = "memory/sysman/spdif";
inline const std::string TV2MOBILE_KEY = "memory/menu/network/screenmirroring/smsrc_status";

/** Setting: the zone that a sub Bluetooth headset holds, -1 for none. */
inline constexpr const char* SUB_BT_ZONE_KEY = "memory/org.olvane.btapp/sub_audio_zoneid";

}  // namespace KVDefine

#endif
