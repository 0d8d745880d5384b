// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVUtils.h"

#include <json/json.h>
#include <lwipc.h>
#include <system_info.h>

#include <atomic>
#include <cstdlib>
#include <memory>

#include "KVDefine.h"
#include "Routes.h"

namespace NKavrel::KVUtils {
namespace {

using KVDefine::FAILED;
using KVDefine::INVALID_ARGUMENT;
using KVDefine::NO_ZONE;

constexpr const char* INTERNAL_SPEAKER_FEATURE = "com.norvik/featureconf/internal_speaker_supported";
constexpr const char* POPUP_EVENT = "FadeInPopup";

constexpr int DEFAULT_SPEAKER_UNKNOWN = -1;

// The first use fills each cache for the life of the process. They are atomic because any thread may be the
// first; two threads at once ask the platform twice and get the same answer.
std::atomic<GDBusConnection*> cachedConnection{nullptr};
std::atomic<int> cachedDefaultSpeaker{DEFAULT_SPEAKER_UNKNOWN};

/** Takes over one reference to a value that may be floating or null. */
GVariant* TakeRef(GVariant* value) {
    return value != nullptr ? g_variant_take_ref(value) : nullptr;
}

bool IsNullKey(const void* key, const CallSite& site = {}) {
    return IsNull(key, "vconf key is NULL", site);
}

}  // namespace

const char* MessageOf(const GError* error) {
    return error != nullptr ? error->message : "(null)";
}

bool IsSpdifSpkType(int route) {
    return OutputOf(route).usesSpdif;
}

bool IsBlockedLastSpkType(int route) {
    return OutputOf(route).isNeverRestored;
}

int GetDefaultSpeaker() {
    if (const int cached = cachedDefaultSpeaker; cached != DEFAULT_SPEAKER_UNKNOWN) {
        return cached;
    }
    cachedDefaultSpeaker = TV_SPEAKER_ROUTE;
    bool supported = true;  // the answer if the query fails
    system_info_get_custom_bool(INTERNAL_SPEAKER_FEATURE, &supported);
    if (!supported) {
        cachedDefaultSpeaker = OPTICAL_ROUTE;
        return OPTICAL_ROUTE;
    }
    return TV_SPEAKER_ROUTE;
}

bool IsPopupSupported() {
    return LwipcIsDone(POPUP_EVENT) > 0;
}

GDBusConnection* GetConnection() {
    if (GDBusConnection* cached = cachedConnection; cached != nullptr) {
        return cached;
    }
    g_autoptr(GError) error = nullptr;
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &error);
    cachedConnection = connection;
    if (connection == nullptr) {
        LOGE("g_bus_get_sync() error (%s)", MessageOf(error));
    }
    return connection;
}

int DbusEmitSignal(const char* objectPath, const char* interfaceName, const char* signalName,
                   GVariant* parameters) {
    g_autoptr(GVariant) body = TakeRef(parameters);
    if (objectPath == nullptr || interfaceName == nullptr || signalName == nullptr) {
        LOGE("Invalid Argument");
        return INVALID_ARGUMENT;
    }
    LOGI("Signal '%s'", signalName);
    GDBusConnection* connection = GetConnection();
    if (IsNull(connection, "Failed to get GDBus Connection")) {
        return FAILED;
    }
    g_autoptr(GError) error = nullptr;
    if (!g_dbus_connection_emit_signal(connection, nullptr, objectPath, interfaceName, signalName, body,
                                       &error)) {
        LOGE("g_dbus_connection_emit_signal '%s' Failed (%s)", signalName, MessageOf(error));
        return FAILED;
    }
    return 0;
}

int DbusCallSync(const char* busName, const char* objectPath, const char* interfaceName,
                 const char* methodName, GVariant* parameters, GVariant** reply) {
    g_autoptr(GVariant) body = TakeRef(parameters);
    if (busName == nullptr || objectPath == nullptr || interfaceName == nullptr || methodName == nullptr) {
        LOGE("Invalid Argument");
        return INVALID_ARGUMENT;
    }
    LOGI("Method call '%s'", methodName);
    GDBusConnection* connection = GetConnection();
    if (IsNull(connection, "Failed to get GDBus Connection")) {
        return FAILED;
    }
    g_autoptr(GError) error = nullptr;
    g_autoptr(GVariant) result =
        g_dbus_connection_call_sync(connection, busName, objectPath, interfaceName, methodName, body, nullptr,
                                    G_DBUS_CALL_FLAGS_NONE, -1, nullptr, &error);
    if (result == nullptr) {
        LOGE("Method Call '%s' Failed (%s)", methodName, MessageOf(error));
        return FAILED;
    }
    if (reply != nullptr) {
        *reply = g_steal_pointer(&result);
    }
    return 0;
}

bool IsSignalOfType(GVariant* parameters, const char* type, const char* signalName, const CallSite& site) {
    if (g_variant_is_of_type(parameters, G_VARIANT_TYPE(type))) {
        return true;
    }
    LOGE_AT(site, "Invalid parameters of signal %s: expected %s, got %s", signalName, type,
            g_variant_get_type_string(parameters));
    return false;
}

bool IsReplyOfType(GVariant* reply, const char* type, const char* methodName, const CallSite& site) {
    if (g_variant_is_of_type(reply, G_VARIANT_TYPE(type))) {
        return true;
    }
    LOGE_AT(site, "Invalid reply to %s: expected %s, got %s", methodName, type,
            g_variant_get_type_string(reply));
    return false;
}

bool RegisterVconfChangedCb(const char* key, vconf_callback_fn callback, void* userData) {
    if (IsNullKey(key)) {
        return false;
    }
    if (vconf_notify_key_changed(key, callback, userData) != 0) {
        LOGE("Failed to register vconf key %s for notification", key);
        return false;
    }
    LOGD("Successed to register vconf key %s for notification", key);
    return true;
}

bool DeregisterVconfChangedCb(const char* key, vconf_callback_fn callback) {
    if (IsNullKey(key)) {
        return false;
    }
    if (vconf_ignore_key_changed(key, callback) != 0) {
        LOGE("Failed to unregister vconf key %s for notification", key);
        return false;
    }
    LOGD("Successed to unregister vconf key %s for notification", key);
    return true;
}

bool GetVconfKeyFromKeynode(keynode_t* keyNode, std::string& key) {
    if (IsNullKey(keyNode)) {
        return false;
    }
    const char* name = vconf_keynode_get_name(keyNode);
    if (IsNull(name, "Failed to get keynode name")) {
        return false;
    }
    key = name;
    LOGI("Successed to get keynode name %s", name);
    return true;
}

bool VconfSetInt(const char* key, int value) {
    if (IsNullKey(key)) {
        return false;
    }
    if (vconf_set_int(key, value) != 0) {
        LOGE("Failed to set key %s", key);
        return false;
    }
    LOGI("Successed to set key %s", key);
    return true;
}

bool VconfGetInt(const char* key, int& value) {
    if (IsNullKey(key)) {
        return false;
    }
    int read = value;
    if (vconf_get_int(key, &read) != 0) {
        LOGE("Failed to get key %s", key);
        return false;
    }
    value = read;
    LOGI("Successed to get key %s", key);
    return true;
}

bool VconfGetStr(const char* key, std::string& value) {
    if (IsNullKey(key)) {
        return false;
    }
    const std::unique_ptr<char, decltype(&std::free)> text(vconf_get_str(key), &std::free);
    if (text == nullptr) {
        LOGE("Failed to get key %s", key);
        return false;
    }
    value = text.get();
    return true;
}

int GetSubBTZoneID() {
    int zone = NO_ZONE;
    if (!VconfGetInt(KVDefine::SUB_BT_ZONE_KEY.c_str(), zone)) {
        LOGE("Failed to get subBT zone ID");
        return NO_ZONE;
    }
    LOGI("SubBT :%d", zone);
    return zone;
}

std::string ParseJsonVal(const std::string& text, const std::string& name) {
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
        LOGE("json parse error");
        return "error";
    }
    return root[name].asString();
}

}  // namespace NKavrel::KVUtils
