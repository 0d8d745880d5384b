// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The verbs, for whoever does them without a command line. */
#ifndef KAVREL_TV_VERBS_H
#define KAVREL_TV_VERBS_H

#include <functional>
#include <string>
#include <vector>

namespace tv {

/** What a verb does to the open TV, once its arguments are understood. @throws ToolError */
using Deed = std::function<void()>;

/** @param words the verb and its arguments
 *  @throws UsageError if there is no such verb, or its arguments are wrong */
Deed UnderstandVerb(const std::vector<std::string>& words);

}  // namespace tv

#endif
