// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
// Holds the installed header together with the daemon's sources. tests/system/test_client_files.py tests the names of
// its methods and signals.
#include <gtest/gtest.h>
#include <kavrel/kavrel.h>

#include "ISpeaker.h"
#include "KVDefine.h"
#include "VolumeControlFixture.h"

namespace {

static_assert(KAVREL_FAILED == KVDefine::FAILED);
static_assert(KAVREL_INVALID_ARGUMENT == KVDefine::INVALID_ARGUMENT);
static_assert(KAVREL_NOT_SUPPORTED == KVDefine::NOT_SUPPORTED);

static_assert(int{KAVREL_SUPPORT_GET_VOLUME} == NKavrel::SUPPORT_GET_VOLUME);
static_assert(int{KAVREL_SUPPORT_SET_VOLUME} == NKavrel::SUPPORT_SET_VOLUME);
static_assert(int{KAVREL_SUPPORT_GET_MUTE} == NKavrel::SUPPORT_GET_MUTE);
static_assert(int{KAVREL_SUPPORT_SET_MUTE} == NKavrel::SUPPORT_SET_MUTE);

static_assert(KAVREL_AUDIO_PATH_MAIN_OUT == KVDefine::AUDIO_PATH_MAIN_OUT);
static_assert(KAVREL_AUDIO_PATH_SUB_OUT == KVDefine::AUDIO_PATH_SUB_OUT);
static_assert(KAVREL_AUDIO_PATH_BOTH == KVDefine::AUDIO_PATH_BOTH);

static_assert(KAVREL_GAIN_MAX == KVDefine::GAIN_MAX);

class ClientHeaderTest : public fake::VolumeControlTest {};

TEST_F(ClientHeaderTest, NamesAreThoseOfTheDaemon) {
    EXPECT_EQ(KAVREL_BUS_NAME, KVDefine::BUS_NAME);
    EXPECT_EQ(KAVREL_INTERFACE, KVDefine::BUS_NAME);
    EXPECT_EQ(KAVREL_PUBLIC_PATH, KVDefine::PUBLIC_PATH);
}

TEST_F(ClientHeaderTest, TheRangeOfVolumesIsThatOfTheDaemon) {
    Start();
    EXPECT_EQ(control->SetTVVolume(KAVREL_VOLUME_MIN), KAVREL_DONE);
    EXPECT_EQ(control->SetTVVolume(KAVREL_VOLUME_MAX), KAVREL_DONE);
    EXPECT_EQ(control->SetTVVolume(KAVREL_VOLUME_MAX + 1), KAVREL_INVALID_ARGUMENT);
}

}  // namespace
