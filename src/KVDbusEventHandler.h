// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KVDBUSEVENTHANDLER_H
#define KVDBUSEVENTHANDLER_H

#include <gio/gio.h>

#include <functional>
#include <map>
#include <string>

namespace NKavrel {

/**
 * Passes each D-Bus method call and signal to its handler. The user data of every handler is the
 * VolumeControlImpl. A method handler replies exactly once, with the operation's status and never with a
 * D-Bus error; it does not reply at all if the parameters or the user data are missing. Main loop only.
 */
class KVDbusEventHandler {
public:
    KVDbusEventHandler();
    ~KVDbusEventHandler();
    KVDbusEventHandler(const KVDbusEventHandler&) = delete;
    KVDbusEventHandler& operator=(const KVDbusEventHandler&) = delete;

    /** Fills both tables. Entries that are there already stay. */
    void Init();
    void Deinit();
    void OnMethodCall(const std::string& name, GVariant* parameters, GDBusMethodInvocation* invocation,
                      gpointer user_data);
    void OnSignal(const std::string& name, GVariant* parameters, gpointer user_data);

    void _AddMedthodCallEvents();
    void _AddSignalEvents();

    void _OnGetSpeakerSupportType(GVariant* parameters, GDBusMethodInvocation* invocation,
                                  gpointer user_data);
    void _OnSetSpeakerVolume(GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data);
    void _OnGetSpeakerVolume(GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data);
    void _OnSetSpeakerMute(GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data);
    void _OnGetSpeakerMute(GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data);
    void _OnApplyPlayerVolumeFadeIn(GVariant* parameters, GDBusMethodInvocation* invocation,
                                    gpointer user_data);
    void _OnApplyUnmuteVolumeFadeIn(GVariant* parameters, GDBusMethodInvocation* invocation,
                                    gpointer user_data);
    void _OnResetPlayerGain(GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data);
    void _OnApplyGainOnMute(GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data);
    void _HandleApplyVolumeFadeIn(GVariant* parameters, GDBusMethodInvocation* invocation, gpointer user_data,
                                  int source);

    void _OnSpeakerDisconnected(GVariant* parameters, gpointer user_data);
    void _OnApplyPulseAudioGain(GVariant* parameters, gpointer user_data);
    void _OnBudsConnected(GVariant* parameters, gpointer user_data);
    void _OnBudsDisconnected(GVariant* parameters, gpointer user_data);

private:
    std::map<std::string, std::function<void(GVariant*, GDBusMethodInvocation*, gpointer)>> m_methodEvents;
    std::map<std::string, std::function<void(GVariant*, gpointer)>> m_signalEvents;
};

}  // namespace NKavrel

#endif
