// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "KVDbusEventHandler.h"

#include <stdexcept>

#include "DaemonTest.h"
#include "GainFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/** A method or signal, the function that logs its handling, and valid arguments. */
struct HandledMember {
    const char* name;
    const char* function;
    const char* arguments;
};

constexpr HandledMember GETTERS[] = {
    {"GetSpeakerSupportType", "_OnGetSpeakerSupportType", "()"},
    {"GetSpeakerVolume", "_OnGetSpeakerVolume", "()"},
    {"GetSpeakerMute", "_OnGetSpeakerMute", "()"},
};
constexpr HandledMember SETTERS[] = {
    {"SetSpeakerVolume", "_OnSetSpeakerVolume", "(30,)"},
    {"SetSpeakerMute", "_OnSetSpeakerMute", "(true,)"},
};
constexpr HandledMember GAIN_METHODS[] = {
    {"ApplyPlayerFadeIn", "_HandleApplyVolumeFadeIn", "(1,)"},
    {"ApplyUnmuteFadeIn", "_HandleApplyVolumeFadeIn", "(1,)"},
    {"ResetPlayerGain", "_OnResetPlayerGain", "(1,)"},
    {"ApplyGainOnMute", "_OnApplyGainOnMute", "(1, 40)"},
};
constexpr HandledMember SIGNALS[] = {
    {"SpkDisconnected", "_OnSpeakerDisconnected", "(3, 'Box')"},
    {"ApplyPulseAudioGain", "_OnApplyPulseAudioGain", "(50, 0)"},
    {"BudsConnected", "_OnBudsConnected", "(1,)"},
    {"BudsDisconnected", "_OnBudsDisconnected", "(1,)"},
};

std::string Said(const HandledMember& method, const std::string& text) {
    return std::string(method.function) + ": " + text;
}

const std::string NO_PARAMETERS = "E nullptr parameters";
const std::string NO_USER_DATA = "E nullptr user data";

/** Tests the dispatcher alone, with a volume control object that belongs to the test. */
class KVDbusEventHandlerTest : public testing::Test {
protected:
    void SetUp() override {
        handler.Init();
        ASSERT_TRUE(fake::WorkersRest());
        seam.Clear();
    }

    /** Calls a method's handler with a real invocation and returns what the caller received. */
    std::string CallWith(const HandledMember& method, GVariant* parameters, void* userData) {
        const auto arguments = gio::Parsed(method.arguments);
        PendingCall call(method.name, arguments.get());
        seam.Clear();
        handler.OnMethodCall(method.name, parameters, call.Invocation(), userData);
        return call.Answer();
    }

    fake::FakeSeam& seam = fake::FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    NKavrel::VolumeControlImpl control;
    NKavrel::KVDbusEventHandler handler;
};

// The dispatch tables.

TEST_F(KVDbusEventHandlerTest, InitFillsTheMethodsThenTheSignals) {
    NKavrel::KVDbusEventHandler another;
    another.Init();
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("_AddMedthodCallEvents: I Add 9 events",
                                                    "_AddSignalEvents: I Add 4 signal events"));
}

TEST_F(KVDbusEventHandlerTest, AnotherInitKeepsWhatIsThere) {
    handler.Init();
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("_AddMedthodCallEvents: I Add 9 events",
                                                    "_AddSignalEvents: I Add 4 signal events"));
    EXPECT_EQ(CallWith(GETTERS[1], nullptr, &control), "(10, 0)");
}

TEST_F(KVDbusEventHandlerTest, BeforeInitNothingIsKnown) {
    NKavrel::KVDbusEventHandler empty;
    empty.OnMethodCall("GetSpeakerVolume", nullptr, nullptr, &control);
    empty.OnSignal("BudsConnected", nullptr, &control);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("OnMethodCall: E Not matched methodCall:GetSpeakerVolume",
                                                    "OnSignal: E Not matched signal:BudsConnected"));
}

TEST_F(KVDbusEventHandlerTest, AfterDeinitNothingIsKnownAndInitFillsAgain) {
    handler.Deinit();
    handler.OnSignal("BudsConnected", nullptr, &control);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("OnSignal: E Not matched signal:BudsConnected"));
    EXPECT_EQ(CallWith(GETTERS[1], nullptr, &control), "no reply");
    EXPECT_THAT(journal.Here().Logs().Lines(),
                ElementsAre("OnMethodCall: E Not matched methodCall:GetSpeakerVolume"));
    seam.Clear();
    handler.Init();
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("_AddMedthodCallEvents: I Add 9 events",
                                                    "_AddSignalEvents: I Add 4 signal events"));
}

TEST_F(KVDbusEventHandlerTest, TheDestructorCallsNoDeinit) {
    auto another = std::make_unique<NKavrel::KVDbusEventHandler>();
    seam.Clear();
    another.reset();
    EXPECT_THAT(journal.Traces().Names(), ElementsAre("[IN]KVDbusEventHandler::~KVDbusEventHandler",
                                                      "[OUT]KVDbusEventHandler::~KVDbusEventHandler"));
}

TEST_F(KVDbusEventHandlerTest, NamesAreMatchedExactly) {
    for (const char* name : {"getspeakervolume", "GETSPEAKERVOLUME", "GetSpeakerVolume ", " GetSpeakerVolume",
                             "GetSpeakerVolum", "GetSpeakerVolumeX", "", "BudsConnected"}) {
        PendingCall call("GetSpeakerVolume");
        seam.Clear();
        handler.OnMethodCall(name, nullptr, call.Invocation(), &control);
        EXPECT_EQ(call.Answer(), "no reply") << name;
        EXPECT_THAT(journal.Here().Logs().Lines(),
                    ElementsAre("OnMethodCall: E Not matched methodCall:" + std::string(name)));
    }
    const auto parameters = gio::Parsed("(1,)");
    for (const char* name : {"budsconnected", "BudsConnecte", "BudsConnectedX", "", "GetSpeakerVolume"}) {
        seam.Clear();
        handler.OnSignal(name, parameters.get(), &control);
        EXPECT_THAT(journal.Here().Lines(),
                    ElementsAre("OnSignal: E Not matched signal:" + std::string(name)));
    }
}

TEST_F(KVDbusEventHandlerTest, AnExceptionOfAHandlerIsNotCaughtAndNobodyIsAnswered) {
    const auto fail = [] { throw std::runtime_error("on purpose"); };
    PendingCall call("GetSpeakerVolume");
    seam.BeforeNext("audio_get_master_volume", fail);
    EXPECT_THROW(handler.OnMethodCall("GetSpeakerVolume", nullptr, call.Invocation(), &control),
                 std::runtime_error);
    EXPECT_EQ(call.Answer(), "no reply");
    const auto parameters = gio::Parsed("(1,)");
    seam.BeforeNext("I Buds Connected. reason:1", fail);
    EXPECT_THROW(handler.OnSignal("BudsConnected", parameters.get(), &control), std::runtime_error);
}

// A handler logs each null argument and answers nobody.

TEST_F(KVDbusEventHandlerTest, GettersNeedNoParameters) {
    for (const HandledMember& method : GETTERS) {
        EXPECT_THAT(CallWith(method, nullptr, &control), testing::MatchesRegex("\\([0-9]+, 0\\)"))
            << method.name;
    }
}

TEST_F(KVDbusEventHandlerTest, GettersWithoutUserDataDoNotAnswer) {
    for (const HandledMember& method : GETTERS) {
        EXPECT_EQ(CallWith(method, nullptr, nullptr), "no reply") << method.name;
        EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(Said(method, NO_USER_DATA)));
    }
}

TEST_F(KVDbusEventHandlerTest, VolumeSettersLookAtTheUserDataFirst) {
    for (const HandledMember& method : SETTERS) {
        const auto parameters = gio::Parsed(method.arguments);
        EXPECT_EQ(CallWith(method, nullptr, nullptr), "no reply");
        EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(Said(method, NO_USER_DATA)));
        EXPECT_EQ(CallWith(method, parameters.get(), nullptr), "no reply");
        EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(Said(method, NO_USER_DATA)));
        EXPECT_EQ(CallWith(method, nullptr, &control), "no reply");
        EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(Said(method, NO_PARAMETERS)));
    }
    EXPECT_EQ(seam.Volume(), 10);
    EXPECT_FALSE(seam.Mute());
}

TEST_F(KVDbusEventHandlerTest, GainMethodsLookAtTheParametersFirst) {
    for (const HandledMember& method : GAIN_METHODS) {
        const auto parameters = gio::Parsed(method.arguments);
        EXPECT_EQ(CallWith(method, nullptr, nullptr), "no reply");
        EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(Said(method, NO_PARAMETERS)));
        EXPECT_EQ(CallWith(method, nullptr, &control), "no reply");
        EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(Said(method, NO_PARAMETERS)));
        EXPECT_EQ(CallWith(method, parameters.get(), nullptr), "no reply");
        EXPECT_THAT(journal.Here().Logs().Lines(), ElementsAre(Said(method, NO_USER_DATA)));
    }
    EXPECT_THAT(journal.Gains().Texts(), IsEmpty());
}

TEST_F(KVDbusEventHandlerTest, SignalsLookAtTheParametersFirstAndHaveNoEffect) {
    for (const HandledMember& signal : SIGNALS) {
        const auto parameters = gio::Parsed(signal.arguments);
        seam.Clear();
        handler.OnSignal(signal.name, nullptr, nullptr);
        handler.OnSignal(signal.name, nullptr, &control);
        handler.OnSignal(signal.name, parameters.get(), nullptr);
        EXPECT_THAT(journal.Here().Lines(),
                    ElementsAre(Said(signal, NO_PARAMETERS), Said(signal, NO_PARAMETERS),
                                Said(signal, NO_USER_DATA)));
    }
    EXPECT_FALSE(control.GetMuteOnSpkChanged());
}

TEST_F(KVDbusEventHandlerTest, ASignalOfAnotherTypeIsDroppedWithBothTypesNamed) {
    const char* wrong[] = {"()", "('x',)", "(uint32 1,)", "(1, 2, 3)", "(int64 1, 'x')", "(<1>,)"};
    const std::string expected[] = {"(is)", "(ii)", "(i)", "(i)"};
    for (std::size_t i = 0; i < std::size(SIGNALS); ++i) {
        for (const char* body : wrong) {
            const auto parameters = gio::Parsed(body);
            seam.Clear();
            handler.OnSignal(SIGNALS[i].name, parameters.get(), &control);
            EXPECT_THAT(
                journal.Here().Lines(),
                ElementsAre(Said(SIGNALS[i], std::string("E Invalid parameters of signal ") +
                                                 SIGNALS[i].name + ": expected " + expected[i] + ", got " +
                                                 g_variant_get_type_string(parameters.get()))));
        }
    }
    EXPECT_FALSE(control.GetMuteOnSpkChanged());
}

TEST_F(KVDbusEventHandlerTest, TheNullChecksOfASignalComeBeforeItsType) {
    const auto wrong = gio::Parsed("('x',)");
    for (const HandledMember& signal : SIGNALS) {
        seam.Clear();
        handler.OnSignal(signal.name, wrong.get(), nullptr);
        EXPECT_THAT(journal.Here().Lines(), ElementsAre(Said(signal, NO_USER_DATA)));
    }
}

// A failed operation.

TEST(KVDbusEventHandlerFailureTest, AFailedPulseRequestIsOnlyLogged) {
    fake::FakeSeam& seam = fake::FakeSeam::Get();
    NKavrel::KVDbusEventHandler handler;
    handler.Init();
    auto control = std::make_unique<NKavrel::VolumeControlImpl>();
    ASSERT_TRUE(fake::WorkersRest());
    const auto parameters = gio::Parsed("(50, 100)");
    // While the gain controller ends, the volume control object has none, and so the request fails.
    seam.BeforeNext(
        "system_info_get_custom_bool(\"com.norvik/featureconf/projector_feature_support\")",
        [&, ending = control.get()] { handler.OnSignal("ApplyPulseAudioGain", parameters.get(), ending); });
    control.reset();
    EXPECT_THAT(seam.journal.Here().Lines(),
                HasInOrder({"_OnApplyPulseAudioGain: I Apply PulseAudioGain 50, duration 100",
                            "_OnApplyPulseAudioGain: I Done Apply PulseAudioGain 50, duration 100. ret:-1"}));
    EXPECT_THAT(seam.journal.Calls("g_").Texts(), IsEmpty());
}

}  // namespace
