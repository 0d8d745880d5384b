// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tests the platform utilities without a bus; KVUtilsBus_test.cpp tests them with one. */
#include "KVUtils.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <memory>
#include <set>

#include "FakeSeam.h"
#include "GLibPtr.h"
#include "KVDefine.h"
#include "WatchedBody.h"

using fake::FakeSeam;
using fake::WatchedBody;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace KVUtils = NKavrel::KVUtils;

namespace {

constexpr const char* KEY = "memory/some/key";
constexpr const char* FEATURE_CALL =
    "system_info_get_custom_bool(\"com.norvik/featureconf/internal_speaker_supported\")";

void OnKey(keynode_t*, void*) {}

/** Ends a process that runs one check, with a status that says whether the check passed. */
[[noreturn]] void EndProcess() {
    std::_Exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
}

class KVUtilsTest : public testing::Test {
protected:
    KVUtilsTest() { setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1); }

    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
};

TEST_F(KVUtilsTest, TheSharedNamesAreWhatOthersRelyOn) {
    EXPECT_EQ(KVDefine::VOLUME_CHANGED, "VOLUME_CHANGED");
    EXPECT_EQ(KVDefine::MUTE_CHANGED, "MUTE_CHANGED");
    EXPECT_EQ(KVDefine::SPEAKER_CHANGED, "SPEAKER_CHANGED");
    EXPECT_EQ(KVDefine::MULTIVIEW_FEATURE, "com.norvik/featureconf/multiview.support");
    EXPECT_EQ(KVDefine::MULTIVIEW_INFO_KEY, "memory/multiscreen/info");
    EXPECT_EQ(KVDefine::SPDIF_KEY, "memory/sysman/spdif");
    EXPECT_EQ(KVDefine::TV2MOBILE_KEY, "memory/menu/network/screenmirroring/smsrc_status");
}

TEST_F(KVUtilsTest, TheTwoRouteSetsHoldExactlyTheirCodes) {
    const std::set<int> spdif = {1, 9, 11};
    const std::set<int> blockedLast = {5, 6, 13, 14, 15, 19};
    for (int route = -5; route < 300; ++route) {
        EXPECT_EQ(KVUtils::IsSpdifSpkType(route), spdif.contains(route)) << route;
        EXPECT_EQ(KVUtils::IsBlockedLastSpkType(route), blockedLast.contains(route)) << route;
    }
}

TEST_F(KVUtilsTest, TheDefaultSpeakerIsTheTvSpeakerAndIsReadOnce) {
    EXPECT_EXIT(
        {
            EXPECT_EQ(KVUtils::GetDefaultSpeaker(), 0);
            EXPECT_THAT(journal.Calls().Texts(), ElementsAre(FEATURE_CALL));
            seam.SetFeature("com.norvik/featureconf/internal_speaker_supported", false);
            EXPECT_EQ(KVUtils::GetDefaultSpeaker(), 0);
            EXPECT_EQ(journal.Calls().Texts().size(), 1U);
            EndProcess();
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(KVUtilsTest, WithoutAnInternalSpeakerTheDefaultIsTheOpticalRouteAndIsReadOnce) {
    EXPECT_EXIT(
        {
            seam.SetFeature("com.norvik/featureconf/internal_speaker_supported", false);
            EXPECT_EQ(KVUtils::GetDefaultSpeaker(), 1);
            seam.SetFeature("com.norvik/featureconf/internal_speaker_supported", true);
            EXPECT_EQ(KVUtils::GetDefaultSpeaker(), 1);
            EXPECT_THAT(journal.Calls().Texts(), ElementsAre(FEATURE_CALL));
            EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
            EndProcess();
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(KVUtilsTest, AFailedQueryOfTheInternalSpeakerMeansThatThereIsOne) {
    EXPECT_EXIT(
        {
            seam.SetFeature("com.norvik/featureconf/internal_speaker_supported", false);
            seam.Fail("system_info_get_custom_bool", -1);
            EXPECT_EQ(KVUtils::GetDefaultSpeaker(), 0);
            EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
            EndProcess();
        },
        testing::ExitedWithCode(EXIT_SUCCESS), "");
}

TEST_F(KVUtilsTest, ThePopupIsSupportedOnlyWhenItsEventIsDone) {
    EXPECT_FALSE(KVUtils::IsPopupSupported());
    seam.SetEvent("FadeInPopup", true);
    EXPECT_TRUE(KVUtils::IsPopupSupported());
    EXPECT_THAT(journal.Texts(), ElementsAre("LwipcIsDone(\"FadeInPopup\")", "LwipcIsDone(\"FadeInPopup\")"));
    seam.Fail("LwipcIsDone", -1);
    EXPECT_FALSE(KVUtils::IsPopupSupported()) << "an error counts as not done";
}

TEST_F(KVUtilsTest, WatchingAKeyIsLoggedAtDebug) {
    EXPECT_TRUE(KVUtils::RegisterVconfChangedCb(KEY, OnKey, this));
    ASSERT_EQ(seam.Watches(KEY).size(), 1U);
    EXPECT_EQ(seam.Watches(KEY)[0].callback, &OnKey);
    EXPECT_EQ(seam.Watches(KEY)[0].data, this);
    EXPECT_TRUE(KVUtils::DeregisterVconfChangedCb(KEY, OnKey));
    EXPECT_THAT(seam.Watches(KEY), IsEmpty());
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).Texts(),
                ElementsAre("D Successed to register vconf key memory/some/key for notification",
                            "D Successed to unregister vconf key memory/some/key for notification"));
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
}

TEST_F(KVUtilsTest, AFailedWatchIsLoggedAndFalse) {
    seam.Fail("vconf_notify_key_changed", -1);
    EXPECT_FALSE(KVUtils::RegisterVconfChangedCb(KEY, OnKey, nullptr));
    EXPECT_FALSE(KVUtils::DeregisterVconfChangedCb(KEY, OnKey));
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).Texts(),
                ElementsAre("E Failed to register vconf key memory/some/key for notification",
                            "E Failed to unregister vconf key memory/some/key for notification"));
    EXPECT_EQ(journal.All().Entries()[1].site.function, "RegisterVconfChangedCb");
    EXPECT_EQ(journal.All().Entries()[3].site.function, "DeregisterVconfChangedCb");
}

TEST_F(KVUtilsTest, NullKeysAreLoggedByTheFunctionTheyWereGivenToAndReachNoPlatform) {
    int number = 1;
    std::string text = "before";
    EXPECT_FALSE(KVUtils::RegisterVconfChangedCb(nullptr, OnKey, nullptr));
    EXPECT_FALSE(KVUtils::DeregisterVconfChangedCb(nullptr, OnKey));
    EXPECT_FALSE(KVUtils::GetVconfKeyFromKeynode(nullptr, text));
    EXPECT_FALSE(KVUtils::VconfSetInt(nullptr, 1));
    EXPECT_FALSE(KVUtils::VconfGetInt(nullptr, number));
    EXPECT_FALSE(KVUtils::VconfGetStr(nullptr, text));
    EXPECT_EQ(number, 1);
    EXPECT_EQ(text, "before");
    std::vector<std::string> functions;
    for (const fake::Entry& entry : journal.All().Entries()) {
        EXPECT_EQ(entry.text, "E vconf key is NULL");
        functions.push_back(entry.site.function);
    }
    EXPECT_THAT(functions,
                ElementsAre("RegisterVconfChangedCb", "DeregisterVconfChangedCb", "GetVconfKeyFromKeynode",
                            "VconfSetInt", "VconfGetInt", "VconfGetStr"));
}

TEST_F(KVUtilsTest, AKeyNodesNameIsCopied) {
    keynode_t node = {"memory/x", 3, "3"};
    std::string name;
    EXPECT_TRUE(KVUtils::GetVconfKeyFromKeynode(&node, name));
    EXPECT_EQ(name, "memory/x");
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("I Successed to get keynode name memory/x"));
}

TEST_F(KVUtilsTest, AKeyNodeWithoutANameIsAnError) {
    keynode_t nameless;
    std::string name = "before";
    EXPECT_FALSE(KVUtils::GetVconfKeyFromKeynode(&nameless, name));
    EXPECT_EQ(name, "before");
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E Failed to get keynode name"));
}

TEST_F(KVUtilsTest, IntegersAreSetAndReadWithALineEach) {
    int value = 0;
    EXPECT_TRUE(KVUtils::VconfSetInt(KEY, -12));
    EXPECT_TRUE(KVUtils::VconfGetInt(KEY, value));
    EXPECT_EQ(value, -12);
    EXPECT_THAT(
        journal.Texts(),
        ElementsAre("vconf_set_int(\"memory/some/key\", -12)", "I Successed to set key memory/some/key",
                    "vconf_get_int(\"memory/some/key\")", "I Successed to get key memory/some/key"));
}

TEST_F(KVUtilsTest, FailedIntegersLeaveTheCallersValue) {
    int value = 42;
    seam.Fail("vconf_set_int", -1);
    EXPECT_FALSE(KVUtils::VconfSetInt(KEY, 1));
    EXPECT_FALSE(KVUtils::VconfGetInt(KEY, value));
    EXPECT_EQ(value, 42);
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre("E Failed to set key memory/some/key", "E Failed to get key memory/some/key"));
}

TEST_F(KVUtilsTest, TextIsReadWithoutALine) {
    std::string text = "before";
    EXPECT_FALSE(KVUtils::VconfGetStr(KEY, text));
    EXPECT_EQ(text, "before");
    seam.SetStr(KEY, "{\"a\": 1}");
    EXPECT_TRUE(KVUtils::VconfGetStr(KEY, text));
    EXPECT_EQ(text, "{\"a\": 1}");
    seam.SetStr(KEY, "");
    EXPECT_TRUE(KVUtils::VconfGetStr(KEY, text));
    EXPECT_EQ(text, "");
    EXPECT_THAT(journal.Logs(DLOG_DEBUG).Texts(), ElementsAre("E Failed to get key memory/some/key"));
}

TEST_F(KVUtilsTest, TheSubBluetoothZoneIsMinusOneWhenTheKeyIsMissingAndWhenItHoldsThat) {
    EXPECT_EQ(KVUtils::GetSubBTZoneID(), -1);
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre("E Failed to get key memory/org.olvane.btapp/sub_audio_zoneid",
                            "E Failed to get subBT zone ID"));
    seam.Clear();
    seam.SetInt("memory/org.olvane.btapp/sub_audio_zoneid", -1);
    EXPECT_EQ(KVUtils::GetSubBTZoneID(), -1);
    EXPECT_THAT(
        journal.Logs().Texts(),
        ElementsAre("I Successed to get key memory/org.olvane.btapp/sub_audio_zoneid", "I SubBT :-1"));
    seam.Clear();
    seam.SetInt("memory/org.olvane.btapp/sub_audio_zoneid", 3);
    EXPECT_EQ(KVUtils::GetSubBTZoneID(), 3);
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre("I Successed to get key memory/org.olvane.btapp/sub_audio_zoneid", "I SubBT :3"));
}

TEST_F(KVUtilsTest, AJsonMemberIsReadAsText) {
    EXPECT_EQ(KVUtils::ParseJsonVal(R"({"mode": "on", "zones": [1, 2]})", "mode"), "on");
    EXPECT_EQ(KVUtils::ParseJsonVal(R"({"mode": 12})", "mode"), "12");
    EXPECT_EQ(KVUtils::ParseJsonVal(R"({"mode": true})", "mode"), "true");
    EXPECT_EQ(KVUtils::ParseJsonVal(R"({"mode": null})", "mode"), "");
    EXPECT_EQ(KVUtils::ParseJsonVal(R"({"other": "on"})", "mode"), "") << "a missing member";
    EXPECT_EQ(KVUtils::ParseJsonVal("null", "mode"), "");
    EXPECT_THAT(journal.Logs().Texts(), IsEmpty());
}

TEST_F(KVUtilsTest, TextThatIsNoJsonReadsAsError) {
    for (const char* text : {"", "{", "{\"mode\": }", "on", "{\"mode\": \"on\"", "\x01\x02"}) {
        seam.Clear();
        EXPECT_EQ(KVUtils::ParseJsonVal(text, "mode"), "error") << text;
        EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E json parse error")) << text;
        EXPECT_EQ(journal.With("E json parse error").Function(), "ParseJsonVal");
    }
}

TEST_F(KVUtilsTest, TextThatIsNeitherAnObjectNorNullThrows) {
    for (const char* text : {"[]", "[1]", "\"on\"", "5", R"({"mode": []})", R"({"mode": {"on": 1}})"}) {
        EXPECT_THROW(KVUtils::ParseJsonVal(text, "mode"), Json::Exception) << text;
    }
}

TEST_F(KVUtilsTest, WithoutABusEachCallTriesAgain) {
    EXPECT_EQ(KVUtils::GetConnection(), nullptr);
    EXPECT_EQ(KVUtils::GetConnection(), nullptr);
    ASSERT_EQ(journal.Logs().Texts().size(), 2U);
    for (const std::string& line : journal.Logs().Texts()) {
        EXPECT_THAT(line, StartsWith("E g_bus_get_sync() error (Could not connect"));
        EXPECT_EQ(journal.With(line).Function(), "GetConnection");
    }
}

TEST_F(KVUtilsTest, WithoutABusASignalFailsAndItsBodyIsReleased) {
    WatchedBody body;
    EXPECT_EQ(KVUtils::DbusEmitSignal("/a", "b.c", "Sig", body.Floating()), -1);
    EXPECT_EQ(body.TimesFreed(), 1);
    EXPECT_EQ(KVUtils::DbusEmitSignal("/a", "b.c", "Sig", nullptr), -1);
    EXPECT_THAT(journal.Logs().Texts(),
                ElementsAre("I Signal 'Sig'", HasSubstr("g_bus_get_sync() error"),
                            "E Failed to get GDBus Connection", "I Signal 'Sig'",
                            HasSubstr("g_bus_get_sync() error"), "E Failed to get GDBus Connection"));
    EXPECT_EQ(journal.With("E Failed to get GDBus Connection").Function(), "DbusEmitSignal");
}

TEST_F(KVUtilsTest, WithoutABusACallFailsAndItsParametersAreReleased) {
    WatchedBody body;
    GVariant* reply = nullptr;
    EXPECT_EQ(KVUtils::DbusCallSync("a.b", "/a", "b.c", "Do", body.Floating(), &reply), -1);
    EXPECT_EQ(body.TimesFreed(), 1);
    EXPECT_EQ(reply, nullptr);
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("I Method call 'Do'", HasSubstr("g_bus_get_sync() error"),
                                                    "E Failed to get GDBus Connection"));
    EXPECT_EQ(journal.With("E Failed to get GDBus Connection").Function(), "DbusCallSync");
}

TEST_F(KVUtilsTest, ASignalWithANullNameIsRefusedBeforeTheBusIsTouchedAndItsBodyIsReleased) {
    WatchedBody body;
    EXPECT_EQ(KVUtils::DbusEmitSignal(nullptr, "b.c", "Sig", body.Floating()), -2);
    EXPECT_EQ(KVUtils::DbusEmitSignal("/a", nullptr, "Sig", body.Floating()), -2);
    EXPECT_EQ(KVUtils::DbusEmitSignal("/a", "b.c", nullptr, body.Floating()), -2);
    EXPECT_EQ(body.TimesFreed(), 3);
    EXPECT_EQ(KVUtils::DbusEmitSignal(nullptr, nullptr, nullptr, nullptr), -2);
    EXPECT_THAT(journal.Logs().Texts(), ElementsAre("E Invalid Argument", "E Invalid Argument",
                                                    "E Invalid Argument", "E Invalid Argument"));
    EXPECT_EQ(journal.With("E Invalid Argument").Function(), "DbusEmitSignal");
}

TEST_F(KVUtilsTest, ACallWithANullNameIsRefusedBeforeTheBusIsTouchedAndItsParametersAreReleased) {
    WatchedBody body;
    GVariant* reply = nullptr;
    EXPECT_EQ(KVUtils::DbusCallSync(nullptr, "/a", "b.c", "Do", body.Floating(), &reply), -2);
    EXPECT_EQ(KVUtils::DbusCallSync("a.b", nullptr, "b.c", "Do", body.Floating(), &reply), -2);
    EXPECT_EQ(KVUtils::DbusCallSync("a.b", "/a", nullptr, "Do", body.Floating(), &reply), -2);
    EXPECT_EQ(KVUtils::DbusCallSync("a.b", "/a", "b.c", nullptr, body.Floating(), &reply), -2);
    EXPECT_EQ(body.TimesFreed(), 4);
    EXPECT_EQ(reply, nullptr);
    EXPECT_THAT(journal.Logs().Texts(), testing::Each("E Invalid Argument"));
    EXPECT_EQ(journal.Logs().Texts().size(), 4U);
    EXPECT_EQ(journal.With("E Invalid Argument").Function(), "DbusCallSync");
}

TEST_F(KVUtilsTest, EachFunctionTakesOverOneReferenceToABodyHeldElsewhere) {
    WatchedBody body;
    tools::Variant mine(g_variant_ref_sink(body.Floating()));
    KVUtils::DbusEmitSignal(nullptr, "b.c", "Sig", g_variant_ref(mine.get()));
    KVUtils::DbusEmitSignal("/a", "b.c", "Sig", g_variant_ref(mine.get()));
    KVUtils::DbusCallSync("a.b", "/a", "b.c", nullptr, g_variant_ref(mine.get()), nullptr);
    KVUtils::DbusCallSync("a.b", "/a", "b.c", "Do", g_variant_ref(mine.get()), nullptr);
    EXPECT_EQ(body.TimesFreed(), 0) << "the caller's own reference is left alone";
    mine.reset();
    EXPECT_EQ(body.TimesFreed(), 1);
}

TEST_F(KVUtilsTest, TheUtilitiesAreNotTraced) {
    int value = 0;
    KVUtils::IsPopupSupported();
    KVUtils::VconfGetInt(KEY, value);
    KVUtils::GetSubBTZoneID();
    KVUtils::GetConnection();
    EXPECT_THAT(journal.Traces().Texts(), IsEmpty());
}

}  // namespace
