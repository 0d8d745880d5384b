// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "CallReport.h"

#include <array>
#include <cstdio>
#include <optional>
#include <string_view>

#include "KavrelClient.h"
#include "Print.h"

namespace ctl {

namespace {

/** What the daemon's own methods answer: "(i)", a status, or "(ii)", a value and a status. */
struct Answer {
    std::optional<int> value;
    std::optional<int> status;
};

Answer AnswerOf(const Call& call) {
    Answer answer;
    if (call.end != Call::End::ANSWERED || call.interface != tools::KAVREL_INTERFACE ||
        call.answer == nullptr) {
        return answer;
    }
    gint32 first = 0;
    gint32 second = 0;
    if (g_variant_is_of_type(call.answer.get(), G_VARIANT_TYPE("(ii)"))) {
        g_variant_get(call.answer.get(), "(ii)", &first, &second);
        answer = {first, second};
    } else if (g_variant_is_of_type(call.answer.get(), G_VARIANT_TYPE("(i)"))) {
        g_variant_get(call.answer.get(), "(i)", &first);
        answer = {std::nullopt, first};
    }
    return answer;
}

std::string Printed(GVariant* value) {
    const tools::GLibPtr<char> text(g_variant_print(value, FALSE));
    return text.get();
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
    std::string list = "(";
    const char* separator = "";
    for (const auto& value : Children(tuple)) {
        list += separator + Printed(value.get());
        separator = ", ";
    }
    return list += ")";
}

Json::Value InJson(GVariant* value) {
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_INT32)) {
        return g_variant_get_int32(value);
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
        return g_variant_get_boolean(value) == TRUE;
    }
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        return g_variant_get_string(value, nullptr);
    }
    return Printed(value);
}

template <typename T>
Json::Value OrNull(const std::optional<T>& value) {
    return value ? Json::Value(*value) : Json::Value();
}

double Milliseconds(const Call& call) {
    return static_cast<double>(call.duration) / 1000.0;
}

std::string Duration(const Call& call) {
    std::array<char, 32> text = {};
    std::snprintf(text.data(), text.size(), "%.1f ms", Milliseconds(call));
    return text.data();
}

std::string_view ProgramOf(const Caller& caller) {
    const std::string_view path = caller.command.empty() ? std::string_view() : caller.command.front();
    return path.substr(path.rfind('/') + 1);
}

std::string InWords(const Caller& caller) {
    if (!caller.process) {
        return "by " + caller.name + ", which has gone";
    }
    std::string command(caller.command.empty() ? "a program that has gone" : ProgramOf(caller));
    for (size_t index = 1; index < caller.command.size(); ++index) {
        command += " " + caller.command[index];
    }
    return "by " + tools::Printable(command) + " (pid " + std::to_string(*caller.process) + ")";
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
    std::string words = isKavrels ? call.method : call.interface + "." + call.method;
    words += Listed(call.arguments.get()) + " -> " + EndInWords(call);
    return words += ", " + InWords(call.caller);
}

Json::Value InJson(const Call& call) {
    const Answer answer = AnswerOf(call);
    Json::Value fields;
    fields["interface"] = call.interface;
    fields["method"] = call.method;
    fields["arguments"] = Json::Value(Json::arrayValue);
    for (const auto& argument : Children(call.arguments.get())) {
        fields["arguments"].append(InJson(argument.get()));
    }
    fields["value"] = OrNull(answer.value);
    fields["status"] = OrNull(answer.status);
    fields["error"] = call.end == Call::End::REFUSED ? Json::Value(call.error) : Json::Value();
    const bool isTimed = call.end == Call::End::ANSWERED || call.end == Call::End::REFUSED;
    fields["duration_ms"] = isTimed ? Json::Value(Milliseconds(call)) : Json::Value();
    fields["caller"] = call.caller.name;
    fields["pid"] = OrNull(call.caller.process);
    fields["program"] =
        call.caller.command.empty() ? Json::Value() : Json::Value(std::string(ProgramOf(call.caller)));
    fields["command"] = Json::Value(Json::arrayValue);
    for (const auto& argument : call.caller.command) {
        fields["command"].append(argument);
    }
    return fields;
}

}  // namespace ctl
