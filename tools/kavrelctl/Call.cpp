// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "CallWatch.h"

namespace ctl {

namespace {

/** The daemon's own methods answer "(i)", a status, or "(ii)", a value and a status. */
struct Answer {
    std::optional<int> value;
    std::optional<int> status;
};

Answer AnswerOf(const Call& call) {
    const auto has = [&call](const char* type) {
        return call.answer != nullptr &&
               g_variant_is_of_type(call.answer.get(), G_VARIANT_TYPE(type)) == TRUE;
    };
    const bool isKavrels = call.end == Call::End::ANSWERED && call.interface == tools::KAVREL_INTERFACE;
    gint32 first = 0;
    gint32 second = 0;
    if (isKavrels && has("(ii)")) {
        g_variant_get(call.answer.get(), "(ii)", &first, &second);
        return {first, second};
    }
    if (isKavrels && has("(i)")) {
        g_variant_get(call.answer.get(), "(i)", &first);
        return {std::nullopt, first};
    }
    return {};
}

std::vector<tools::Variant> Children(GVariant* tuple) {
    std::vector<tools::Variant> children;
    for (size_t index = 0; tuple != nullptr && index < g_variant_n_children(tuple); ++index) {
        children.emplace_back(g_variant_get_child_value(tuple, index));
    }
    return children;
}

/** "(30, true)"; "()" for null. */
std::string Listed(GVariant* tuple) {
    std::vector<std::string> values;
    for (const auto& value : Children(tuple)) {
        values.push_back(tools::Printed(value.get()));
    }
    return "(" + tools::Joined(values, ", ") + ")";
}

Json::Value InJson(GVariant* value) {
    switch (g_variant_classify(value)) {
        case G_VARIANT_CLASS_INT32:
            return g_variant_get_int32(value);
        case G_VARIANT_CLASS_BOOLEAN:
            return g_variant_get_boolean(value) == TRUE;
        case G_VARIANT_CLASS_STRING:
            return g_variant_get_string(value, nullptr);
        default:
            return tools::Printed(value);
    }
}

template <typename T>
Json::Value OrNull(const std::optional<T>& value) {
    return value ? Json::Value(*value) : Json::Value();
}

double Milliseconds(const Call& call) {
    return static_cast<double>(call.duration) / 1000.0;
}

std::string Duration(const Call& call) {
    return tools::Formatted("%.1f ms", Milliseconds(call));
}

std::string AnswerInWords(const Call& call) {
    const Answer answer = AnswerOf(call);
    if (answer.status && *answer.status < 0) {
        return tools::StatusInWords(*answer.status);
    }
    if (answer.status) {
        return std::to_string(answer.value.value_or(*answer.status));
    }
    return call.interface == tools::KAVREL_INTERFACE ? Listed(call.answer.get()) : "done";
}

std::string EndInWords(const Call& call) {
    switch (call.end) {
        case Call::End::ANSWERED:
            return AnswerInWords(call) + ", " + Duration(call);
        case Call::End::REFUSED:
            return call.error + ", " + Duration(call);
        case Call::End::NO_REPLY_WANTED:
            return "no answer wanted";
        default:
            return "no answer for " + Duration(call);
    }
}

}  // namespace

std::string InWords(const Call& call) {
    const bool isKavrels = call.interface.empty() || call.interface == tools::KAVREL_INTERFACE;
    return (isKavrels ? "" : call.interface + ".") + call.method + Listed(call.arguments.get()) + " -> " +
           EndInWords(call) + ", by " + InWords(call.caller);
}

Json::Value InJson(const Call& call) {
    const Answer answer = AnswerOf(call);
    const bool isRefused = call.end == Call::End::REFUSED;
    const bool isTimed = call.end == Call::End::ANSWERED || isRefused;
    Json::Value fields;
    fields["interface"] = call.interface;
    fields["method"] = call.method;
    fields["arguments"] = Json::Value(Json::arrayValue);
    for (const auto& argument : Children(call.arguments.get())) {
        fields["arguments"].append(InJson(argument.get()));
    }
    fields["value"] = OrNull(answer.value);
    fields["status"] = OrNull(answer.status);
    fields["error"] = isRefused ? Json::Value(call.error) : Json::Value();
    fields["duration_ms"] = isTimed ? Json::Value(Milliseconds(call)) : Json::Value();
    fields["caller"] = call.caller.name;
    fields["pid"] = OrNull(call.caller.process);
    fields["program"] = OrNull(ProgramOf(call.caller));
    fields["command"] = Json::Value(Json::arrayValue);
    for (const auto& argument : call.caller.command) {
        fields["command"].append(argument);
    }
    return fields;
}

}  // namespace ctl
