// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <random>

#include "DaemonTest.h"

using testing::AllOf;
using testing::AnyOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Ge;
using testing::Le;
using testing::StartsWith;

namespace {

/** Tests reports and requests that run at the same time. */
class ConcurrencyTest : public DaemonTest {
protected:
    void SetUp() override { Start(); }
};

/** Keeps a platform thread inside a report, in which it holds the lock of the volume control object. */
class Report {
public:
    Report() : m_gate(fake::FakeSeam::Get().BlockNext(VOLUME_33)) {
        m_thread = std::thread([] { fake::FakeSeam::Get().FireVolume(33); });
        EXPECT_TRUE(m_gate.WaitReached());
    }
    ~Report() {
        m_gate.Open();
        m_thread.join();
    }
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

private:
    fake::BlockedCall m_gate;
    std::thread m_thread;
};

TEST_F(ConcurrencyTest, RequestsDuringAReportAreAnsweredAtOnceWithMinusOne) {
    {
        const Report report;
        EXPECT_EQ(Call("GetSpeakerVolume"), "(0, -1)");
        EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 30)), "(-1,)");
        EXPECT_EQ(Call("GetSpeakerMute"), "(0, -1)");
        EXPECT_EQ(Call("SetSpeakerMute", g_variant_new("(b)", TRUE)), "(-1,)");
        EXPECT_EQ(Call("GetSpeakerSupportType"), "(0, -1)");
    }
    EXPECT_THAT(
        MainLoop().Logs(DLOG_ERROR).Lines(),
        ElementsAre(StartsWith("GetTVVolume: "), StartsWith("SetTVVolume: "), StartsWith("GetTVVolumeMute: "),
                    StartsWith("SetTVVolumeMute: "), StartsWith("GetVolumeSupport: ")));
    EXPECT_THAT(MainLoop().Logs().Lines(),
                HasInOrder({"_OnGetSpeakerVolume: I Return Current volume state(0), ret:-1",
                            "_OnSetSpeakerVolume: I Return volume 30. ret:-1",
                            "_OnGetSpeakerMute: I Return Current mute state(0), ret:-1",
                            "_OnSetSpeakerMute: I Return set mute status 1. ret:-1",
                            "_OnGetSpeakerSupportType: I Return Current support type(0x0000), ret:-1"}));
    EXPECT_EQ(Call("GetSpeakerVolume"), "(33, 0)");
    EXPECT_FALSE(seam.Mute());
}

TEST_F(ConcurrencyTest, AVolumeAboveTheRangeIsRefusedEvenThen) {
    const Report report;
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 101)), "(-2,)");
}

TEST_F(ConcurrencyTest, GainRequestsAreServedDuringAReport) {
    seam.SetMute(true);
    const Report report;
    EXPECT_EQ(Call("ApplyGainOnMute", g_variant_new("(ii)", 3, 40)), "(0,)");
    EXPECT_EQ(seam.MainGainValue(), 40);
    EXPECT_EQ(Call("ResetPlayerGain", g_variant_new("(i)", 1)), "(0,)");
    // The daemon cannot read the mute state now and assumes unmuted.
    EXPECT_EQ(Call("ApplyUnmuteFadeIn", g_variant_new("(i)", 3)), "(0,)");
    EXPECT_EQ(seam.MainGainValue(), 100);
    Emit("ApplyPulseAudioGain", g_variant_new("(ii)", 50, 0));
    EXPECT_TRUE(journal.With(fake::MainGain(50)).Wait());
}

TEST_F(ConcurrencyTest, AReportDuringARequestIsLostAndTheRequestIsServed) {
    auto request = seam.BlockNext("audio_get_master_volume");
    std::string answer;
    std::thread caller([&] {
        const fake::BusClient another;
        const auto reply = another.Call(BUS_NAME, OBJECT_PATH, INTERFACE, "GetSpeakerVolume", nullptr);
        answer = gio::PrintedWithTypes(reply.get());
    });
    ASSERT_TRUE(request.WaitReached());
    seam.FireVolume(44);
    seam.FireMute(1);
    seam.FireRoute(2);
    EXPECT_THAT(journal.Here().Logs().Lines(),
                ElementsAre(StartsWith("_OnVolumeChanged: E "), StartsWith("_OnMuteChanged: E "),
                            StartsWith("SpeakerChangedCallback: E ")));
    request.Open();
    caller.join();
    EXPECT_EQ(answer, "(44, 0)");
    seam.FireVolume(45);
    EXPECT_THAT(journal.Here().Logs().Lines(),
                Contains("onVolumeChanged: I Send dbus signal VolumeChanged : 45"));
}

TEST_F(ConcurrencyTest, TheSignalOfAReportIsSentWhileTheReportHoldsTheVolumeControl) {
    client.Listen(OBJECT_PATH, INTERFACE);
    auto emission = seam.BlockNext("I Send dbus signal VolumeChanged : 33");
    std::thread platform([&] { seam.FireVolume(33); });
    ASSERT_TRUE(emission.WaitReached());
    EXPECT_EQ(Call("GetSpeakerVolume"), "(0, -1)");
    emission.Open();
    platform.join();
    EXPECT_EQ(client.WaitForSignal().body, "(65535, 33)");
}

// One platform thread (the platform makes one report at a time), three clients and the gain workers run at
// once. The daemon answers every request, with its value or with -1.
TEST_F(ConcurrencyTest, AStormOfReportsAndRequestsLosesNoAnswer) {
    constexpr int ROUNDS = 150;
    seam.ReportOwnChanges(false);  // only the platform thread reports
    journal.DropLogLines(true);
    seam.SetInt("db/usbsound/volume_capability", 15);
    std::thread platform([&] {
        std::mt19937 random(1);  // NOLINT(cert-msc51-cpp): the same storm each time
        for (int i = 0; i < ROUNDS; ++i) {
            const auto value = random();
            seam.FireVolume(value % 101);
            seam.FireMute(value >> 8 & 1);
            seam.FireRoute(static_cast<int>(value >> 16) % 21);
            seam.FireKey("db/usbsound/volume_level", static_cast<int>(value % 101));
            seam.FireKey("memory/sysman/spdif", static_cast<int>(value >> 9 & 1));
            seam.FireKey("memory/menu/network/screenmirroring/smsrc_status",
                         static_cast<int>(value >> 10 & 1));
            seam.FireKey("memory/multiscreen/info", value >> 11 & 1 ? R"({"mode":"on"})" : "{}");
            seam.FireFocus(static_cast<int>(value >> 12) % 3);
            seam.FireZoneRoute(static_cast<int>(value >> 16) % 21, static_cast<int>(value >> 12) % 3);
        }
    });
    const auto status = [](const tools::Variant& reply, int index) {
        if (reply == nullptr) {
            return 1;
        }
        int value = 1;
        g_variant_get_child(reply.get(), static_cast<gsize>(index), "i", &value);
        return value;
    };
    const auto requests = [&](int seed) {
        const fake::BusClient another;
        const auto call = [&](const char* method, GVariant* parameters) {
            return another.Call(BUS_NAME, OBJECT_PATH, INTERFACE, method, parameters);
        };
        for (int i = 0; i < ROUNDS; ++i) {
            EXPECT_THAT(status(call("SetSpeakerVolume", g_variant_new("(i)", (seed + i) % 101)), 0),
                        AllOf(Le(0), Ge(-4)));
            EXPECT_THAT(status(call("GetSpeakerVolume", nullptr), 1), AllOf(Le(0), Ge(-4)));
            EXPECT_THAT(status(call("SetSpeakerMute", g_variant_new("(b)", i & 1)), 0), AllOf(Le(0), Ge(-4)));
            EXPECT_THAT(status(call("GetSpeakerSupportType", nullptr), 1), AllOf(Le(0), Ge(-4)));
            EXPECT_THAT(status(call("ApplyGainOnMute", g_variant_new("(ii)", 1 + i % 3, i % 101)), 0),
                        AnyOf(0, -1));
            another.Emit(PUBLIC_PATH, INTERFACE, i & 1 ? "SpkDisconnected" : "ApplyPulseAudioGain",
                         i & 1 ? g_variant_new("(is)", 3, "x") : g_variant_new("(ii)", i % 101, i % 20));
        }
    };
    std::thread one(requests, 1);
    std::thread two(requests, 50);
    requests(75);
    one.join();
    two.join();
    platform.join();
    daemon->WaitUntilIdle();

    seam.ReportOwnChanges(true);
    seam.FireKey("memory/multiscreen/info", "{}");
    seam.FireRoute(2);
    seam.FireRoute(0);
    EXPECT_EQ(Call("SetSpeakerVolume", g_variant_new("(i)", 12)), "(0,)");
    EXPECT_EQ(Call("GetSpeakerVolume"), "(12, 0)");
}

}  // namespace
