// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <memory>

#include "Commands.h"
#include "Errors.h"
#include "Platform.h"
#include "Print.h"
#include "Snapshot.h"
#include "Terminal.h"
#include "View.h"

namespace tv {

namespace {

int Show(const std::string& directory, bool asJson) {
    OpenTv(directory);
    const Snapshot now = ReadTv();
    if (asJson) {
        tools::PrintJson(ToJson(now));
    } else {
        tools::Print(Draw(now, Bars::WITHOUT, tools::Style(), ColumnsOfOutput()));
    }
    return tools::EXIT_DONE;
}

}  // namespace

void AddShow(tools::CommandLine& line, const Options& options) {
    auto asJson = std::make_shared<bool>(false);
    line.AddCommand("show",
                    "show the whole TV on one screen\n\n"
                    "A setting that nobody has written yet is \"not set\"; a value that cannot be read\n"
                    "as one of its kind is \"unreadable\".",
                    "kavrel-tv show --json", [&options, asJson] { return Show(options.directory, *asJson); })
        .add_flag("--json", *asJson, "one object on one line; null: not set or unreadable");
}

}  // namespace tv
