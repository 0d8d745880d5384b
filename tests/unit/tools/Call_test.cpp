// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** The words and the JSON of kavrelctl: of calls, callers and properties. */
#include <gtest/gtest.h>

#include <string>

#include "CallWatch.h"
#include "Print.h"
#include "Property.h"

namespace ctl {
namespace {

using End = Call::End;

constexpr const char* PEER = "org.freedesktop.DBus.Peer";

Caller SomeCaller() {
    return {":1.7", 4711, {"/usr/bin/kavrelctl", "volume", "30\x1B"}};
}

tools::Variant Values(const char* text) {
    return tools::Variant(g_variant_ref_sink(g_variant_new_parsed(text)));
}

Call SomeCall(End end, const char* answer = "()", const char* interface = tools::KAVREL_INTERFACE) {
    Call call;
    call.caller = SomeCaller();
    call.interface = interface;
    call.method = "SetSpeakerVolume";
    call.arguments = Values("(30, true, 'a b', [1, 2])");
    call.end = end;
    call.answer = Values(answer);
    call.error = end == End::REFUSED ? "org.some.Error" : "";
    call.duration = 1250;
    return call;
}

/** The words between the arrow and the caller. */
std::string EndOf(const Call& call) {
    const std::string words = InWords(call);
    const std::size_t begin = words.find(" -> ") + 4;
    return words.substr(begin, words.rfind(", by ") - begin);
}

TEST(CallTest, ACallInWords) {
    EXPECT_EQ(InWords(SomeCall(End::ANSWERED, "(0,)")),
              "SetSpeakerVolume(30, true, 'a b', [1, 2]) -> 0, 1.2 ms, by kavrelctl volume 30? (pid 4711)");
    EXPECT_EQ(InWords(SomeCall(End::ANSWERED, "(0,)", "")).substr(0, 17), "SetSpeakerVolume(");
    EXPECT_EQ(InWords(SomeCall(End::ANSWERED, "(0,)", PEER)).substr(0, 43),
              "org.freedesktop.DBus.Peer.SetSpeakerVolume(");
}

TEST(CallTest, TheEndOfACallInWords) {
    EXPECT_EQ(EndOf(SomeCall(End::ANSWERED, "(17, 0)")), "17, 1.2 ms");
    EXPECT_EQ(EndOf(SomeCall(End::ANSWERED, "(17, -4)")), "not supported by this output (-4), 1.2 ms");
    EXPECT_EQ(EndOf(SomeCall(End::ANSWERED, "(-2,)")), "invalid argument (-2), 1.2 ms");
    EXPECT_EQ(EndOf(SomeCall(End::ANSWERED, "(true, 'x')")), "(true, 'x'), 1.2 ms");
    EXPECT_EQ(EndOf(SomeCall(End::ANSWERED, "(17, 0)", PEER)), "done, 1.2 ms");
    EXPECT_EQ(EndOf(SomeCall(End::REFUSED, "(17, 0)")), "org.some.Error, 1.2 ms");
    EXPECT_EQ(EndOf(SomeCall(End::NO_REPLY_WANTED)), "no answer wanted");
    EXPECT_EQ(EndOf(SomeCall(End::NO_ANSWER)), "no answer for 1.2 ms");
}

TEST(CallTest, ACallAsAnObject) {
    EXPECT_EQ(
        tools::JsonLine(InJson(SomeCall(End::ANSWERED, "(17, 0)"))),
        R"({"arguments":[30,true,"a b","[1, 2]"],"caller":":1.7",)"
        R"("command":["/usr/bin/kavrelctl","volume","30\u001b"],"duration_ms":1.25,"error":null,)"
        R"("interface":"org.olvane.kavrel","method":"SetSpeakerVolume","pid":4711,"program":"kavrelctl",)"
        R"("status":0,"value":17})");
}

TEST(CallTest, AnObjectHasNullForWhatACallLacks) {
    const Json::Value other = InJson(SomeCall(End::ANSWERED, "(17, 0)", PEER));
    EXPECT_TRUE(other["status"].isNull() && other["value"].isNull());
    const Json::Value status = InJson(SomeCall(End::ANSWERED, "(-1,)"));
    EXPECT_EQ(status["status"], -1);
    EXPECT_TRUE(status["value"].isNull());
    const Json::Value refused = InJson(SomeCall(End::REFUSED));
    EXPECT_EQ(refused["error"], "org.some.Error");
    EXPECT_EQ(refused["duration_ms"], 1.25);
    for (const End end : {End::NO_ANSWER, End::NO_REPLY_WANTED}) {
        const Json::Value unanswered = InJson(SomeCall(end));
        EXPECT_TRUE(unanswered["duration_ms"].isNull() && unanswered["error"].isNull());
    }
    Call call = SomeCall(End::NO_ANSWER);
    call.caller = {":1.8", std::nullopt, {}};
    EXPECT_TRUE(InJson(call)["pid"].isNull() && InJson(call)["program"].isNull());
    EXPECT_EQ(InJson(call)["command"].size(), 0U);
}

TEST(CallTest, ACallerThatHasGoneHasANameOrAProcess) {
    EXPECT_EQ(InWords(Caller{":1.8", std::nullopt, {}}), ":1.8, which has gone");
    EXPECT_EQ(InWords(Caller{":1.8", 12, {}}), "a program that has gone (pid 12)");
    EXPECT_EQ(InWords(Caller{":1.8", 12, {"sh"}}), "sh (pid 12)");
}

TEST(CallTest, APropertyInWords) {
    EXPECT_EQ(InWords(Property::VOLUME, {30, 0}), "30");
    EXPECT_EQ(InWords(Property::VOLUME, {30, -1}), "failed or busy (-1)");
    EXPECT_EQ(InWords(Property::MUTE, {0, 0}), "off");
    EXPECT_EQ(InWords(Property::MUTE, {1, 5}), "on");
    EXPECT_EQ(InWords(Property::MUTE, {2, 0}), "on");
    EXPECT_EQ(InWords(Property::SUPPORT, {3, 0}),
              "read volume, set volume; not: read mute, set mute (0x0003)");
    EXPECT_EQ(InWords(Property::SUPPORT, {3, -4}), "not supported by this output (-4)");
    EXPECT_EQ(InWords(Property::SUPPORT, {3, -1}),
              "unknown: the output's device has not said, or kavreld is busy (-1)");
}

TEST(CallTest, APropertyAsAnObject) {
    Json::Value object;
    AddTo(object, Property::VOLUME, {30, 0});
    AddTo(object, Property::MUTE, {2, 0});
    AddTo(object, Property::SUPPORT, {9, 0});
    EXPECT_EQ(tools::JsonLine(object),
              R"({"mute":true,"mute_status":0,"support":9,"support_status":0,)"
              R"("support_words":["read volume","set mute"],"volume":30,"volume_status":0})");
    AddTo(object, Property::VOLUME, {30, -1});
    AddTo(object, Property::SUPPORT, {9, -1});
    EXPECT_TRUE(object["volume"].isNull() && object["support"].isNull());
    EXPECT_EQ(object["support_words"].size(), 0U);
    EXPECT_EQ(object["volume_status"], -1);
}

}  // namespace
}  // namespace ctl
