// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "BTSpeakerEmul.h"

#include "KVDefine.h"
#include "KVUtils.h"
#include "SpeakerPeer.h"

namespace NKavrel {
namespace {

using KVDefine::NOT_SUPPORTED;

constexpr SpeakerPeer PEER = {"com.norvik.tv.bt.connectionmanager", "/com/norvik/tv/bt/connectionmanager",
                              "com.norvik.tv.bt.connectionmanager.speaker"};

}  // namespace

BTSpeakerEmul::BTSpeakerEmul() : ExternalSpeaker(BT_DEVICE) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

BTSpeakerEmul::~BTSpeakerEmul() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

int BTSpeakerEmul::SetVolume(int volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!CheckSupport(SUPPORT_SET_VOLUME)) {
        LOGE("SET VOLUME is not supported.");
        return NOT_SUPPORTED;
    }
    return SetPeerVolume(PEER, volume);
}

int BTSpeakerEmul::GetVolume(int& volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!CheckSupport(SUPPORT_GET_VOLUME)) {
        LOGE("GET VOLUME is not supported.");
        return NOT_SUPPORTED;
    }
    return GetPeerVolume(PEER, volume);
}

void BTSpeakerEmul::SetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_signalSubscriptionId != 0) {
        return;
    }
    GDBusConnection* connection = KVUtils::GetConnection();
    if (connection == nullptr) {
        return;
    }
    if (!KVUtils::RegisterVconfChangedCb(m_volumeMuteKey.c_str(), OnVolumeControlChanged, this)) {
        LOGE("get_volume_mute callback set failed");
        return;
    }
    if (!KVUtils::RegisterVconfChangedCb(m_supportKey.c_str(), OnVolumeControlChanged, this)) {
        LOGE("get_volume_support callback set failed");
        return;
    }
    m_signalSubscriptionId = SubscribeToPeers(connection, OnVolumeLevelChanged, this);
}

void BTSpeakerEmul::UnsetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_signalSubscriptionId == 0) {
        return;
    }
    if (!KVUtils::DeregisterVconfChangedCb(m_volumeMuteKey.c_str(), OnVolumeControlChanged)) {
        LOGE("get_volume_mute callback unset failed");
        return;
    }
    if (!KVUtils::DeregisterVconfChangedCb(m_supportKey.c_str(), OnVolumeControlChanged)) {
        LOGE("get_volume_mute callback unset failed");  // the support key shares this text
        return;
    }
    g_dbus_connection_signal_unsubscribe(KVUtils::GetConnection(), m_signalSubscriptionId);
    m_signalSubscriptionId = 0;
}

void BTSpeakerEmul::OnVolumeLevelChanged(GDBusConnection* connection, const gchar* senderName,
                                         const gchar* /*objectPath*/, const gchar* /*interfaceName*/,
                                         const gchar* signalName, GVariant* parameters, gpointer userData) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(connection, "Conneciton is NULL") || IsNull(signalName, "signal_name is NULL") ||
        IsNull(userData, "userdata is NULL")) {
        return;
    }
    PeerVolume changed;
    if (!ReadPeerVolume(parameters, changed)) {
        return;
    }
    LOGI("Start sender:%s signal_name:%s route:%d, suppType:0x%04x vol:%d", senderName, signalName,
         changed.route, static_cast<unsigned int>(changed.supportType), changed.volume);
    static_cast<BTSpeakerEmul*>(userData)->m_volumeHandler(changed.volume);
}

}  // namespace NKavrel
