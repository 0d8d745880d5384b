// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <gio/gio.h>
#include <json/value.h>

#include <CLI/App.hpp>
