// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "PrivateBus.h"

namespace {

[[maybe_unused]] const bool registered = fake::RegisterPrivateBus();

}  // namespace
