# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""The acceptance kit finds what is wrong with a platform: each wrong one of tests/platforms breaks exactly one rule."""
import os
import re
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

from harness import ROOT

KIT = os.environ["KIT_ON_MEMORY"]
WRONG = {
    "CallsAfterRemoval": "Registrations.ARemovedCallbackIsNeverCalledAgain",
    "ListsCallbacksTooEarly": "Registrations.ARemovalAlsoEndsAReportThatIsPending",
    "RemovalDoesNotWait": "Registrations.ARemovalWaitsForACallbackThatRunsOnAnotherThread",
    "RemovalInsideACallbackHangs": "Registrations.ACallbackMayRemoveItself",
    "RemovesByKeyOnly": "SettingsRegistrations.AreToldApartByKeyAndCallback",
    "RemovesByCallbackOnly": "SettingsRegistrations.AreToldApartByKeyAndCallback",
    "UnknownIdIsFine": "Registrations.AnUnknownFocusIdFails",
    "CallsWhomACallbackRemoved": "Registrations.ACallbackMayRemoveAnotherOneThatIsAboutToBeCalled",
    "RepeatedPairIsASecondOne": "SettingsRegistrations.ARepeatedPairReplacesItsUserData",
    "RepeatedPairKeepsItsUserData": "SettingsRegistrations.ARepeatedPairReplacesItsUserData",
    "KeyHasOneCallback": "SettingsRegistrations.AKeyMayHaveSeveralCallbacks",
    "SecondKeepsTheFirst": "Registrations.ASecondOneReplacesTheFirst",
    "ReportsTheValueAtRegistration": "Registrations.TheValueAtRegistrationIsNotReported",
    "NewOneHearsTheReportUnderWay": "Registrations.ANewOneDoesNotHearTheReportUnderWay",
    "KeyHasToExist": "SettingsReports.AKeyMayBeWatchedBeforeItExists",
    "TwoReportsAtOnce": "Reports.ComeOneAtATime",
    "ReportsOurChangesLater": "Reports.OurChangeIsReportedOnTheSettersThreadBeforeTheSetterReturns",
    "ReportsOurChangesTwice": "Reports.OurChangeIsReportedOnce",
    "ReportsOurEqualValues": "Reports.AnEqualValueOfOursIsSilent",
    "ReportsOurEqualIntegers": "Reports.AnEqualValueOfOursIsSilent",
    "SetterSwallowsAPendingChange": "Reports.AChangeOfSomebodyElseIsReportedThoughWeSetTheSameValue",
    "ReportsEqualValuesOfOthers": "Reports.AnEqualValueOfSomebodyElseIsSilent",
    "LosesTheLastValue": "Reports.TheLastValueIsAlwaysReported",
    "GoesBackInTime": "Reports.AReportNeverGoesBackInTime",
    "WritesOutsideTheLock": "Reports.OurChangesOnTwoThreadsAreReportedInTheOrderOfTheirWrites",
    "OlderReportGoesOn": "Callbacks.MaySetTheirOwnValueAndTheNewestIsTheLastOneHeard",
    "SetterDeliversEverything": "Reports.ASetterDeliversNoChangeOfSomebodyElse",
    "ReportsBeforeItWrites": "Callbacks.FindTheNewValueInTheGetters",
    "MuteOfTheHalAlone": "Reports.MasterMuteIsOneValueForBothInterfaces",
    "FirstRouteOfAZoneIsSilent": "Zones.TheFirstRouteOfANewZoneIsReported",
    "QueuesChangesInsideCallbacks": "Callbacks.MaySetOtherValues",
    "RemembersTheOldValue": "Registrations.TheValueAtRegistrationIsNotReported",
    "ClampsTheVolume": "AudioHal.AVolumeOutOfRangeFailsAndChangesNothing",
    "FailedReadIsZero": "Reading.AFailedReadLeavesItsArgumentAsItWas",
    "UnknownZoneIsFine": "SoundManager.TheRouteOfAnUnknownZoneIs0xFE6A0004",
    "ZonesAreUnsorted": "ResourceCenter.ZonesAreListedInAscendingOrder",
    "GettersWait": "Threads.ReadsNeverWaitForACallback",
    "GainsWait": "Threads.GainsNeverWaitForACallback",
    "LogWaits": "Threads.TheLogNeverWaitsForACallback",
    "LogFormatsEverything": "Log.FiltersBeforeItFormats",
    "LogEndsWithItsReader": "Log.AReaderThatHasGoneDoesNotEndTheProcess",
    "ClampsTheGains": "AudioControlTable.AnyGainIsStoredAndReadBack",
    "ForgetsWhatIsTakenAway": "SettingsReports.AKeyThatWasTakenAwayIsSilentWhenItReturnsWithItsValue",
    "NodesShareTheirText": "SettingsReports.ANodeIsValidUntilItsCallbackReturns",
    "Crashes": "ResourceCenter.NoZonesMakeAnEmptyList",
}
# These take half a minute, which the kit's processes spend in waiting: they begin first.
SLOW = ("LosesTheLastValue", "RemovalInsideACallbackHangs", "KeyHasOneCallback", "MuteOfTheHalAlone")
# All rules take a few seconds for each platform; with a sanitizer that is too long, so only the broken rule runs.
IS_WHOLE = os.environ["KAVREL_SANITIZER"] == "none"


def judge(platform, *arguments):
    return subprocess.run([KIT, *arguments], env={**os.environ, "WRONG_PLATFORM": platform}, capture_output=True,
                          text=True, check=False)


@pytest.fixture(scope="module")
def verdicts():
    """The kit's run for each wrong platform. Most of them wait most of the time, so many run at once."""
    with ThreadPoolExecutor(8) as pool:
        names = sorted(WRONG, key=lambda name: name not in SLOW)
        runs = {name: pool.submit(judge, name, *([] if IS_WHOLE else [WRONG[name]])) for name in names}
        return {name: run.result() for name, run in runs.items()}


def test_every_wrong_platform_has_its_rule():
    source = (ROOT / "tests/platforms/wrong_platforms.cpp").read_text()
    assert re.findall(r'\{"(\w+)", Make', source) == list(WRONG)


@pytest.mark.parametrize("platform", WRONG)
def test_a_wrong_platform_breaks_exactly_its_rule(verdicts, platform):
    done = verdicts[platform]
    assert re.findall(r"^broken: ([\w.]+): ", done.stdout, re.M) == [WRONG[platform]], done.stdout
    assert done.returncode == 1


def test_a_failure_says_what_was_done_and_seen(verdicts):
    said = verdicts["ClampsTheVolume"].stdout
    assert "Rule: A volume below 0 or above 100 fails, and the volume stays as it is.\n" in said
    assert "  audio_set_master_volume(101, 0) returns 0, and the volume is 100\n" in said
    assert "BROKEN: audio_set_master_volume(101) should fail\n" in said


def test_a_crash_is_a_broken_rule(verdicts):
    said = verdicts["Crashes"].stdout
    assert "broken: ResourceCenter.NoZonesMakeAnEmptyList: the process " in said


def test_a_call_that_hangs_is_named(verdicts):
    said = verdicts["RemovalInsideACallbackHangs"].stdout
    assert "the removal of a callback, called inside it, did not return within 10 seconds" in said


def test_what_only_the_tv_in_a_directory_promises_is_left_out_for_others():
    others, all_rules = judge("", "--list").stdout.split(), judge("", "--list", "--directory").stdout.split()
    left_out = {name for name in all_rules if name not in others}
    assert left_out == {name for name in all_rules if name.startswith("TvInADirectory.")}
    assert len(left_out) >= 4


def test_each_rule_that_another_one_names_exists():
    sources = "".join(path.read_text() for path in (ROOT / "platform/kit").iterdir() if path.suffix in (".cpp", ".h"))
    named = set(re.findall(r'"([A-Z][A-Za-z]+\.[A-Z][A-Za-z0-9]+)"', sources))
    assert len(named) > 20 and named <= set(judge("", "--list", "--directory").stdout.split())


def test_the_rules_have_names_to_choose_from():
    names = judge("Crashes", "--list").stdout.splitlines()
    assert set(WRONG.values()) <= set(names)
    done = judge("Crashes", "BootEvents")
    assert done.returncode == 0
    assert f"{len([name for name in names if name.startswith('BootEvents.')])} kept, 0 broken, 0 not judged" in done.stdout
    assert judge("Crashes", "Nothing").returncode == 64
