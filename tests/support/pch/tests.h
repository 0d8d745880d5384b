// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FakeSeam.h"
