// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>
#include <json/value.h>

#include <CLI/App.hpp>
