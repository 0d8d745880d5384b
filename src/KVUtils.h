// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * The TV platform's services as the daemon uses them: null keys and failures are handled and logged here,
 * once. Callable from any thread. Nothing here is traced.
 */
#ifndef KVUTILS_H
#define KVUTILS_H

#include <gio/gio.h>
#include <vconf.h>

#include <string>

#include "KVDebug.h"

namespace NKavrel::KVUtils {

/** What a failed call of GLib has to say; "(null)" if it says nothing. */
const char* MessageOf(const GError* error);

/** Whether the route goes out through the S/PDIF connector. */
bool IsSpdifSpkType(int route);

/** Whether the route is never returned to when another output goes away. */
bool IsBlockedLastSpkType(int route);

/** The TV's own default route: 0 with an internal speaker, else 1. The platform is asked once per process. */
int GetDefaultSpeaker();

/** Whether finished fade-ins are announced on the screen. */
bool IsPopupSupported();

/** The shared system bus connection, or null when there is none now; the next call tries again. Not to be
 *  released by the caller. */
GDBusConnection* GetConnection();

/**
 * Broadcasts a signal on the shared connection.
 * @param parameters body, floating or not; one reference is taken over whatever the result. May be null.
 * @return 0, -1 when it could not be sent, -2 for a null name
 */
int DbusEmitSignal(const char* objectPath, const char* interfaceName, const char* signalName,
                   GVariant* parameters);

/**
 * Calls a method and waits for its reply, up to the bus's own time-out (25 s).
 * @param parameters as for DbusEmitSignal
 * @param[out] reply the reply, to be released by the caller; set only on success
 * @return 0, -1 when the call failed, -2 for a null name
 */
int DbusCallSync(const char* busName, const char* objectPath, const char* interfaceName,
                 const char* methodName, GVariant* parameters, GVariant** reply);

/** Whether a signal's body has the given type; if not, says so as the call site. */
bool IsSignalOfType(GVariant* parameters, const char* type, const char* signalName,
                    const CallSite& site = {});

/** Whether a method's reply has the given type; if not, says so as the call site. */
bool IsReplyOfType(GVariant* reply, const char* type, const char* methodName, const CallSite& site = {});

/** Watches a setting: the callback runs on the thread on which the platform reports the change. */
bool RegisterVconfChangedCb(const char* key, vconf_callback_fn callback, void* userData);
bool DeregisterVconfChangedCb(const char* key, vconf_callback_fn callback);
bool GetVconfKeyFromKeynode(keynode_t* keyNode, std::string& key);

/** Settings; an out value is untouched on failure. */
bool VconfSetInt(const char* key, int value);
bool VconfGetInt(const char* key, int& value);
bool VconfGetStr(const char* key, std::string& value);

/** The zone that a sub Bluetooth headset holds, -1 for none or unknown. */
int GetSubBTZoneID();

/**
 * One member of a JSON object, as text; "" when missing, "error" when the text is no JSON.
 * @throw Json::Exception when the text is neither an object nor null, or the member has no text form
 */
std::string ParseJsonVal(const std::string& text, const std::string& name);

}  // namespace NKavrel::KVUtils

#endif
