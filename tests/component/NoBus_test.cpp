// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <cstdlib>

#include "BTSpeakerEmul.h"
#include "DaemonTest.h"
#include "KVDbusSender.h"
#include "TVSpeakerEmul.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

/** The error line of the shared connection. */
const auto NO_BUS = testing::StartsWith("GetConnection: E ");

[[maybe_unused]] const int address = setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);

/** Tests the daemon on a machine whose bus nobody can reach. */
class NoBusTest : public testing::Test {
protected:
    fake::FakeSeam& seam = fake::FakeSeam::Get();
    fake::Journal& journal = seam.journal;
};

TEST_F(NoBusTest, TheTrackerFindsNoConnectionAndTriesAgainEachTime) {
    NKavrel::KVDbusSender tracker;
    EXPECT_EQ(tracker.GetConnectionPID(":1.1"), 0U);
    EXPECT_EQ(tracker.GetConnectionPID(":1.1"), 0U);
    const std::string failed = "GetConnectionPID: E Failed to get GDBus Connection";
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(NO_BUS, failed, NO_BUS, failed));
}

TEST_F(NoBusTest, ACallerWithoutAConnectionHasNoProgram) {
    NKavrel::KVDbusSender tracker;
    tracker.Print(":1.1");
    const std::string line = "I Called by [:1.1/] size:1";
    EXPECT_TRUE(fake::RunMainContextUntil([&] { return journal.With(line).Count() == 1; }));
}

TEST_F(NoBusTest, TheEmulatorsWatchNothingAndSayNothingOfIt) {
    NKavrel::TVSpeakerEmul tv;
    NKavrel::BTSpeakerEmul bluetooth;
    tv.SetChangedCB();
    bluetooth.SetChangedCB();
    EXPECT_THAT(journal.Calls().Texts(), IsEmpty());
    EXPECT_THAT(journal.Here().Lines(), ElementsAre(NO_BUS, NO_BUS)) << "only the connection's own line";
    tv.UnsetChangedCB();
    bluetooth.UnsetChangedCB();
    EXPECT_THAT(journal.Calls().Texts(), IsEmpty());
}

TEST_F(NoBusTest, TheEmulatorsVolumeCannotBeReachedAndStaysAsTheCallerHadIt) {
    seam.SetInt("memory/menu/network/screenmirroring/volume_support_bt", 3);
    NKavrel::TVSpeakerEmul tv;
    NKavrel::BTSpeakerEmul bluetooth;
    int volume = 42;
    EXPECT_EQ(tv.GetVolume(volume), -1);
    EXPECT_EQ(tv.SetVolume(1), -1);
    EXPECT_EQ(bluetooth.GetVolume(volume), -1);
    EXPECT_EQ(bluetooth.SetVolume(1), -1);
    EXPECT_EQ(volume, 42);
}

TEST_F(NoBusTest, TheServerStartsAndIdlesWithoutAName) {
    NKavrel::KVServer server;
    EXPECT_TRUE(server.Init());
    seam.Clear();
    EXPECT_TRUE(fake::RunMainContextUntil([&] { return !journal.Here().Logs().Lines().empty(); }));
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("onNameLost: E Connection is NULL"));
    seam.FireVolume(30);
    seam.FireRoute(12);
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains("onVolumeChanged: E Connection is NULL"));
    EXPECT_THAT(journal.Here().Logs().Lines(), Contains(testing::StartsWith("onSpeakerChanged: I ")));
    EXPECT_FALSE(seam.Event(READY_EVENT));
}

}  // namespace
