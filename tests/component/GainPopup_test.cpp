// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/** Tests the popup message that a finished fade-in sends on the bus. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "GainFixture.h"
#include "Gio.h"
#include "KVUtils.h"
#include "PrivateBus.h"

using fake::Signal;
using NKavrel::eKVGainHandlerType;
using NKavrel::KVAudioGainHandler;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* PATH = "/Org/Olvane/KVPopupNoti";
constexpr const char* INTERFACE = "org.olvane.kv_popupnoti";

using Seconds = std::chrono::duration<double>;

class GainPopupTest : public fake::GainFixture {
protected:
    GainPopupTest() {
        client.Listen(PATH, INTERFACE);
        NKavrel::KVUtils::GetConnection();
        seam.SetEvent("FadeInPopup", true);
    }

    /** The bodies of the popup messages that the bus carried. */
    std::vector<std::string> Bodies() {
        fake::RunMainContextUntilQuiet();
        std::vector<std::string> bodies;
        for (const Signal& signal : client.TakeSignals()) {
            EXPECT_EQ(signal.path, PATH);
            EXPECT_EQ(signal.interface, INTERFACE);
            EXPECT_EQ(signal.name, "PopupNoti");
            bodies.push_back(signal.body);
        }
        return bodies;
    }

    fake::BusClient client;
};

TEST_F(GainPopupTest, ADurationIsWrittenAsAStreamDoes) {
    for (const double seconds : {1.5, 1.52341, 1.5234149, 2.0, 0.5, 12.25, 1234567.0}) {
        KVAudioGainHandler::SendPopupMsg(NKavrel::GAIN_HANDLER_PLAYER_MAIN_OUT, Seconds(seconds));
    }
    const std::string before = "('Gain Source:PlayerMainOutH<br> Duration(sec):";
    EXPECT_THAT(Bodies(),
                ElementsAre(before + "1.5',)", before + "1.52341',)", before + "1.52341',)", before + "2',)",
                            before + "0.5',)", before + "12.25',)", before + "1.23457e+06',)"));
}

TEST_F(GainPopupTest, TheMessageNamesTheWorkerAndIsABroadcast) {
    for (const auto type : {2, 3, 4, 5}) {
        KVAudioGainHandler::SendPopupMsg(static_cast<eKVGainHandlerType>(type), Seconds(1.5));
    }
    const std::string after = "<br> Duration(sec):1.5";
    EXPECT_THAT(Bodies(), ElementsAre("('Gain Source:PlayerMainOutH" + after + "',)",
                                      "('Gain Source:PlayerSubOutH" + after + "',)",
                                      "('Gain Source:UnMuteMainOutH" + after + "',)",
                                      "('Gain Source:UnMuteSubOutH" + after + "',)"));
    seam.Clear();
    KVAudioGainHandler::SendPopupMsg(NKavrel::GAIN_HANDLER_UNMUTE_SUB_OUT, Seconds(1.5));
    EXPECT_THAT(journal.By("KVAudioGainHandler.cpp").Texts(),
                ElementsAre("I MSG :Gain Source:UnMuteSubOutH" + after,
                            "g_dbus_connection_emit_signal(*, /Org/Olvane/KVPopupNoti, "
                            "org.olvane.kv_popupnoti.PopupNoti, ('Gain Source:UnMuteSubOutH" +
                                after + "',))"));
    EXPECT_EQ(journal.With("I MSG :Gain Source:UnMuteSubOutH" + after).Function(), "SendPopupMsg");
}

TEST_F(GainPopupTest, LessThanHalfASecondIsNotAnnounced) {
    seam.Clear();
    for (const double seconds : {0.4, 0.4999999, 0.0, -3.0}) {
        KVAudioGainHandler::SendPopupMsg(NKavrel::GAIN_HANDLER_PLAYER_MAIN_OUT, Seconds(seconds));
    }
    EXPECT_EQ(journal.Logs(DLOG_ERROR).Count(), 4);
    EXPECT_THAT(Bodies(), IsEmpty());
}

TEST_F(GainPopupTest, AFinishedFadeIsAnnouncedWithItsMeasuredDurationByItsWorker) {
    Start();
    gain->ApplyVolumeFadeIn(KVDefine::GAIN_SRC_PLAYER, 1);
    ASSERT_TRUE(Rest());
    const std::vector<std::string> bodies = Bodies();
    ASSERT_EQ(bodies.size(), 1U);
    const std::string before = "('Gain Source:PlayerMainOutH<br> Duration(sec):";
    ASSERT_THAT(bodies[0], testing::StartsWith(before));
    EXPECT_GE(std::strtod(bodies[0].c_str() + before.size(), nullptr), 1.5);
    const std::string message = bodies[0].substr(2, bodies[0].size() - 5);
    EXPECT_EQ(journal.Of("PlayerMainOutH").With("I MSG :" + message).Function(), "SendPopupMsg");
}

TEST_F(GainPopupTest, AShortFadeAndOneWithoutTheEventAreNotAnnounced) {
    Start();
    gain->_ApplyAudioGain(NKavrel::GAIN_HANDLER_UNMUTE_MAIN_OUT, 1, 97, false);
    ASSERT_TRUE(Rest());
    seam.SetEvent("FadeInPopup", false);
    gain->_ApplyAudioGain(NKavrel::GAIN_HANDLER_PLAYER_MAIN_OUT, 1, 60, false);
    ASSERT_TRUE(Rest());
    EXPECT_THAT(Bodies(), IsEmpty());
}

TEST_F(GainPopupTest, APopupThatTheBusRefusesEndsTheFadeLikeAnyOther) {
    Start();
    seam.Fail("g_dbus_connection_emit_signal", gio::REFUSED);
    gain->_ApplyAudioGain(NKavrel::GAIN_HANDLER_PLAYER_SUB_OUT, 2, 60, false);
    ASSERT_TRUE(Rest());
    EXPECT_EQ(journal.Of("PlayerSubOutH")
                  .With("E g_dbus_connection_emit_signal 'PopupNoti' Failed (refused by the test)")
                  .Function(),
              "DbusEmitSignal");
    EXPECT_EQ(Gain(NKavrel::GAIN_HANDLER_PLAYER_SUB_OUT), 100);
    EXPECT_THAT(Bodies(), IsEmpty());
}

}  // namespace
