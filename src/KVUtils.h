// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Wraps the TV platform's services. Null keys and failures are handled and logged here, once. All functions
 * may be called on any thread; none is traced.
 */
#ifndef KVUTILS_H
#define KVUTILS_H

#include <gio/gio.h>
#include <vconf.h>

#include <string>

#include "KVDebug.h"

namespace NKavrel::KVUtils {

/** The message of a GLib error, "(null)" if there is no error object. */
const char* MessageOf(const GError* error);

/** Whether the sound of the route leaves through the S/PDIF connector. */
bool IsSpdifSpkType(int route);

/** Whether the route is never selected again when a later output goes away. */
bool IsBlockedLastSpkType(int route);

/** The TV's default route: 0 if the TV has an internal speaker, else 1. Asks the platform once per process. */
int GetDefaultSpeaker();

/** Whether the TV shows a popup for each fade-in that took half a second or more. */
bool IsPopupSupported();

/** The process's shared connection to the system bus, or null if it cannot be made now; then the next call
 *  tries again. The caller does not own it. */
GDBusConnection* GetConnection();

/**
 * Broadcasts a signal on the shared connection.
 * @param parameters body, floating or not, or null. The function takes over one reference, also if it fails.
 * @return 0, -1 if the signal could not be sent, -2 if a name is null
 */
int DbusEmitSignal(const char* objectPath, const char* interfaceName, const char* signalName,
                   GVariant* parameters);

/**
 * Calls a method and waits for its reply, for at most the bus's own time-out of 25 s.
 * @param parameters as for DbusEmitSignal
 * @param[out] reply the reply, set only on success; the caller releases it
 * @return 0, -1 if the call failed, -2 if a name is null
 */
int DbusCallSync(const char* busName, const char* objectPath, const char* interfaceName,
                 const char* methodName, GVariant* parameters, GVariant** reply);

/** Whether a signal's body has the given type. Logs an error of the caller if not. */
bool IsSignalOfType(GVariant* parameters, const char* type, const char* signalName,
                    const CallSite& site = {});

/** Whether a method's reply has the given type. Logs an error of the caller if not. */
bool IsReplyOfType(GVariant* reply, const char* type, const char* methodName, const CallSite& site = {});

/** Watches a setting. The callback runs on the thread on which the platform reports the change. */
bool RegisterVconfChangedCb(const char* key, vconf_callback_fn callback, void* userData);
bool DeregisterVconfChangedCb(const char* key, vconf_callback_fn callback);
bool GetVconfKeyFromKeynode(keynode_t* keyNode, std::string& key);

/** Read and write settings. A failed read leaves the out value as it was. */
bool VconfSetInt(const char* key, int value);
bool VconfGetInt(const char* key, int& value);
bool VconfGetStr(const char* key, std::string& value);

/** The zone that a sub Bluetooth headset holds, -1 for none or unknown. */
int GetSubBTZoneID();

/**
 * Reads one member of a JSON object as text.
 * @return "" if the member is missing, "error" if the text is not JSON
 * @throw Json::Exception if the text is neither an object nor null, or the member has no text form
 */
std::string ParseJsonVal(const std::string& text, const std::string& name);

}  // namespace NKavrel::KVUtils

#endif
