// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "TVSpeakerEmul.h"

#include "KVDefine.h"
#include "KVUtils.h"
#include "SpeakerPeer.h"

namespace NKavrel {
namespace {

const SpeakerPeer PEER = {KVDefine::BUS_NAME.c_str(), KVDefine::PUBLIC_PATH.c_str(), "org.olvane.kavrel.tv"};

}  // namespace

TVSpeakerEmul::TVSpeakerEmul() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
}

TVSpeakerEmul::~TVSpeakerEmul() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    TVSpeakerEmul::UnsetEventHandler();
}

int TVSpeakerEmul::SetVolume(int volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return SetPeerVolume(PEER, volume);
}

int TVSpeakerEmul::GetVolume(int& volume) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    return GetPeerVolume(PEER, volume);
}

void TVSpeakerEmul::SetEventHandler(const VolumeEventHandler_t& volumeHandler,
                                    const MuteEventHandler_t& muteHandler) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    StoreHandlers(m_volumeHandler, m_muteHandler, volumeHandler, muteHandler);
}

void TVSpeakerEmul::UnsetEventHandler() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    ClearHandlers(m_volumeHandler, m_muteHandler);
}

void TVSpeakerEmul::SetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (m_changedCBRegistered) {
        return;
    }
    GDBusConnection* connection = KVUtils::GetConnection();
    if (connection == nullptr) {
        return;
    }
    const int result = sound_manager_set_tv_master_mute_changed_cb(MuteChangedCB, this);
    if (result != 0) {
        LOGE("set mute changed_cb failed %x", static_cast<unsigned int>(result));
        return;
    }
    m_signalSubscriptionId = SubscribeToPeers(connection, VolumeChangedCB, this);
    m_changedCBRegistered = true;
}

void TVSpeakerEmul::UnsetChangedCB() {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (!m_changedCBRegistered) {
        return;
    }
    const int result = sound_manager_unset_tv_master_mute_changed_cb();
    if (result != 0) {
        LOGE("unset mute changed_cb failed %x", static_cast<unsigned int>(result));
        return;
    }
    g_dbus_connection_signal_unsubscribe(KVUtils::GetConnection(), m_signalSubscriptionId);
    m_changedCBRegistered = false;
}

void TVSpeakerEmul::VolumeChangedCB(GDBusConnection* connection, const gchar* senderName,
                                    const gchar* /*objectPath*/, const gchar* /*interfaceName*/,
                                    const gchar* signalName, GVariant* parameters, gpointer userData) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(connection, "Conneciton is NULL") || IsNull(userData, "userdata is NULL") ||
        IsNull(signalName, "signal_name is NULL")) {
        return;
    }
    PeerVolume changed;
    if (!ReadPeerVolume(parameters, changed)) {
        return;
    }
    LOGI("Start sender:%s signal_name:%s route:%d, suppType:%d vol:%d", senderName, signalName, changed.route,
         changed.supportType, changed.volume);
    static_cast<TVSpeakerEmul*>(userData)->m_volumeHandler(changed.volume);
}

void TVSpeakerEmul::MuteChangedCB(unsigned int mute, void* data) {
    CALLTRACKER tracker(__PRETTY_FUNCTION__);
    if (IsNull(data, "data is NULL")) {
        return;
    }
    static_cast<TVSpeakerEmul*>(data)->m_muteHandler(static_cast<int>(mute));
}

}  // namespace NKavrel
