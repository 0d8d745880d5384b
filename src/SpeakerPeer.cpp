// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "SpeakerPeer.h"

#include "KVDefine.h"
#include "KVUtils.h"

namespace NKavrel {
namespace {

using KVDefine::FAILED;

constexpr const char* GET_VOLUME = "GetSpkVolume";
constexpr const char* SET_VOLUME = "SetSpkVolume";
constexpr const char* VOLUME_CHANGED = "SpkVolumeChanged";

}  // namespace

int GetPeerVolume(const SpeakerPeer& peer, int& volume, const CallSite& site) {
    g_autoptr(GVariant) reply = nullptr;
    if (KVUtils::DbusCallSync(peer.busName, peer.objectPath, peer.interfaceName, GET_VOLUME, nullptr,
                              &reply) != 0 ||
        !KVUtils::IsReplyOfType(reply, "(iii)", GET_VOLUME, site)) {
        return FAILED;
    }
    int first = 0;
    int level = 0;
    int result = 0;
    g_variant_get(reply, "(iii)", &first, &level, &result);
    LOGI_AT(site, "current TV Speaker volume [%d %d %d]", first, level, result);
    volume = level;
    return result;
}

int SetPeerVolume(const SpeakerPeer& peer, int volume, const CallSite& site) {
    g_autoptr(GVariant) reply = nullptr;
    if (KVUtils::DbusCallSync(peer.busName, peer.objectPath, peer.interfaceName, SET_VOLUME,
                              g_variant_new("(i)", volume), &reply) != 0 ||
        !KVUtils::IsReplyOfType(reply, "(ii)", SET_VOLUME, site)) {
        return FAILED;
    }
    int first = 0;
    int second = 0;
    g_variant_get(reply, "(ii)", &first, &second);
    LOGI_AT(site, "current TV Speaker volume [%d %d]", first, second);
    return 0;
}

guint SubscribeToPeers(GDBusConnection* connection, GDBusSignalCallback callback, gpointer userData) {
    return g_dbus_connection_signal_subscribe(connection, nullptr, KVDefine::BUS_NAME.c_str(), VOLUME_CHANGED,
                                              KVDefine::PUBLIC_PATH.c_str(), nullptr,
                                              G_DBUS_SIGNAL_FLAGS_NONE, callback, userData, nullptr);
}

bool ReadPeerVolume(GVariant* parameters, PeerVolume& changed, const CallSite& site) {
    if (!KVUtils::IsSignalOfType(parameters, "(iii)", VOLUME_CHANGED, site)) {
        return false;
    }
    g_variant_get(parameters, "(iii)", &changed.route, &changed.supportType, &changed.volume);
    return true;
}

}  // namespace NKavrel
