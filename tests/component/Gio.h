// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Replaces the bus functions of GLib that the daemon calls. Each call on the shared bus connection enters the
 * fake seam's journal. It fails if a test asked for that (`seam.Fail("g_dbus_connection_emit_signal",
 * gio::REFUSED)`); otherwise GLib's own function serves it.
 *
 * The texts of the entries: `g_bus_own_name(org.olvane.kavrel, 0)`, `g_bus_unown_name()`,
 * `g_dbus_node_info_new_for_xml()`, `g_dbus_node_info_unref()`, `g_dbus_connection_register_object(PATH,
 * INTERFACE)`, `g_dbus_connection_unregister_object()`, `g_dbus_connection_signal_subscribe(SENDER,
 * INTERFACE, MEMBER, PATH, ARG0, FLAGS)`, with * for "any", `g_dbus_connection_emit_signal(DESTINATION, PATH,
 * INTERFACE.MEMBER, BODY)`, `g_dbus_connection_call_sync(DESTINATION, PATH, INTERFACE.METHOD, BODY, REPLY
 * TYPE, FLAGS, TIMEOUT)`, `g_dbus_method_invocation_return_value(BODY)` on any connection.
 */
#ifndef KAVREL_TESTS_GIO_H
#define KAVREL_TESTS_GIO_H

#include <gio/gio.h>

#include <string>

#include "GLibPtr.h"

namespace gio {

/** A result for FakeSeam::Fail: the call fails and sets its error object, with the message REFUSAL. */
inline constexpr int REFUSED = -1;
/**
 * A result for FakeSeam::Fail: the call fails without an error object; g_bus_own_name returns it as the id.
 */
inline constexpr int NOTHING = 0;
inline constexpr const char* REFUSAL = "refused by the test";

/**
 * The value in GVariant's text format, with type annotations where needed: "(uint32 5, true)"; "()" for null.
 */
std::string PrintedWithTypes(GVariant* value);

/** The value of a text in GVariant's text format: "(1, 'x')". */
tools::Variant Parsed(const char* text);

/** Makes the next synchronous call on the shared connection return this reply without sending anything. */
void ReplyToNextCall(GVariant* reply);

/**
 * Removes the subscriptions and objects that earlier servers of this process left on the shared connection. A
 * server never removes its subscriptions, and it leaves its object there if it ends while it does not own the
 * name.
 */
void RemoveLeftovers();

}  // namespace gio

#endif
