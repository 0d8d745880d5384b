// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef KAVREL_HOST_DEFAULT_TV_H
#define KAVREL_HOST_DEFAULT_TV_H

#include "directory.h"
#include "tree.h"

namespace host {

/**
 * Fills an empty TV directory with the default TV. It is empty if it holds nothing but names that begin with a
 * dot and the folder `settings` with at most the link `db`.
 */
Error FillIfEmpty(Tree& tree);

}  // namespace host

#endif
