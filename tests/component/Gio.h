// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * GLib's bus functions as the daemon calls them. The test program defines them in GLib's place: each call on
 * the shared bus connection enters the fake seam's journal, fails if the fake is told so
 * (`seam.Fail("g_dbus_connection_emit_signal", gio::REFUSED)`), and is else passed on to GLib.
 *
 * How entries read: `g_bus_own_name(org.olvane.kavrel, 0)`, `g_bus_unown_name()`,
 * `g_dbus_node_info_new_for_xml()`, `g_dbus_node_info_unref()`,
 * `g_dbus_connection_register_object(PATH, INTERFACE)`, `g_dbus_connection_unregister_object()`,
 * `g_dbus_connection_signal_subscribe(SENDER, INTERFACE, MEMBER, PATH, ARG0, FLAGS)` with * for any,
 * `g_dbus_connection_emit_signal(DESTINATION, PATH, INTERFACE.MEMBER, BODY)`,
 * `g_dbus_connection_call_sync(DESTINATION, PATH, INTERFACE.METHOD, BODY, REPLY TYPE, FLAGS, TIMEOUT)`,
 * `g_dbus_method_invocation_return_value(BODY)` on any connection.
 */
#ifndef KAVREL_TESTS_GIO_H
#define KAVREL_TESTS_GIO_H

#include <gio/gio.h>

#include <string>

#include "PrivateBus.h"

namespace gio {

/** As a result to fail with: the call sets its error object, with the message REFUSAL. */
inline constexpr int REFUSED = -1;
/** As a result to fail with: the call fails without an error object. g_bus_own_name answers it as the id. */
inline constexpr int NOTHING = 0;
inline constexpr const char* REFUSAL = "refused by the test";

/** `value` with all types that are not obvious: "(uint32 5, true)". */
std::string Printed(GVariant* value);

/** The value of a text in GLib's notation: "(1, 'x')". */
fake::Variant Parsed(const char* text);

/** The next synchronous call of the shared connection gives this reply instead of asking anyone. */
void ReplyToNextCall(GVariant* reply);

/**
 * Takes back what servers of this process left on the shared connection: they never remove their
 * subscriptions, and leave the object there when they end while the name is not owned. For a test program
 * with more than one server.
 */
void RemoveLeftovers();

}  // namespace gio

#endif
