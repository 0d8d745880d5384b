// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * Lets every call that the daemon makes to the platform fail once, in each place that makes it, with each kind of
 * result.
 *
 * A scenario takes the daemon through all its requests and reports, step by step. The journal shows the calls of
 * each step; the place of a call is the two innermost functions that the trace shows around it. The table
 * failures.txt states for each place and result what becomes different: the lines that do not come (-) and those
 * that come instead (+), the result of the request, and the state afterwards. All else stays as without the
 * failure. A place without a row fails the test, and so does a row without a place.
 */
#include <fcntl.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "DaemonTest.h"
#include "GainFixture.h"
#include "KVDbusEventHandler.h"
#include "KVDefine.h"
#include "KVUtils.h"

namespace {

using fake::Entry;
using fake::FakeSeam;
using NKavrel::VolumeControlImpl;
using Texts = std::vector<std::string>;

constexpr std::string_view EMULATOR_SWITCHES = "/opt/etc/.enable_";
bool switchesExist = false;

constexpr const char* VIEW_KEY = "memory/multiscreen/info";
constexpr const char* SPDIF_KEY = "memory/sysman/spdif";
constexpr const char* MOBILE_KEY = "memory/menu/network/screenmirroring/smsrc_status";
constexpr const char* SUB_BT_KEY = "memory/org.olvane.btapp/sub_audio_zoneid";
constexpr const char* READY_KEY = "memory/projector/status/ready";
constexpr const char* INTERNAL_SPEAKER = "com.norvik/featureconf/internal_speaker_supported";
const std::string MIRRORING = "memory/menu/network/screenmirroring/";
constexpr const char* ON = R"({"mode":"on"})";
constexpr const char* OFF = R"({"mode":"off"})";

constexpr auto PLAYER = KVDefine::GAIN_SRC_PLAYER;
constexpr auto UNMUTE = KVDefine::GAIN_SRC_UNMUTE;

/** Results with which a call may fail: of the platform, -1, positive, and the one for a missing zone. */
constexpr int OF_PLATFORM = -1005;
constexpr int NO_SUCH_ZONE = -26607612;
/** In the table this result is the name of the null that a call returns instead of a pointer. */
constexpr int NOTHING = 0;

/** The results with which a function can fail. */
std::vector<int> FailuresOf(const std::string& function) {
    static const std::set<std::string> POINTERS = {"vconf_get_str", "vconf_keynode_get_str",
                                                   "vconf_keynode_get_name", "AudioControl_getInstance"};
    if (POINTERS.contains(function) || function == "rc_register_audio_focus_changed_callback") {
        return {NOTHING};
    }
    if (function == "vconf_keynode_get_int" || function == "LwipcIsDone") {
        return {OF_PLATFORM, -1};  // a result that is not negative is a value
    }
    return {OF_PLATFORM, -1, 5, NO_SUCH_ZONE};
}

/** Knows at each entry of the journal which functions its thread is in. */
class Places {
public:
    /** Follows the trace. @return the place, if the entry is a call to the platform, else "" */
    std::string Of(const Entry& entry) {
        auto& scopes = m_scopes[entry.tid];
        if (entry.IsTrace()) {
            Follow(scopes, entry.text);
            return "";
        }
        if (!entry.IsCall() || entry.name.starts_with("g_")) {
            return "";
        }
        const std::string inner = scopes.empty() ? "" : scopes.back();
        const std::string outer = scopes.size() < 2 ? "" : scopes[scopes.size() - 2] + " > ";
        return outer + inner + ": " + entry.name + KeyOf(entry.text);
    }

private:
    static void Follow(Texts& scopes, const std::string& text) {
        const std::string signature = text.substr(0, text.find('('));
        const auto name = signature.substr(signature.rfind("NKavrel::") + std::strlen("NKavrel::"));
        const bool tellsNothing =
            name.ends_with("::SetAudioGain");  // three functions of the gain controller do
        if (tellsNothing) {
            return;
        }
        if (text.find("[IN]") != std::string::npos) {
            scopes.push_back(name);
        } else if (!scopes.empty()) {
            scopes.pop_back();
        }
    }
    static std::string KeyOf(const std::string& call) {
        const auto first = call.find('"');
        const auto last = call.rfind('"');
        return first == last ? "" : ' ' + call.substr(first + 1, last - first - 1);
    }

    std::map<pid_t, Texts> m_scopes;
};

/** A row of the table. */
struct Row {
    std::string step;
    std::string place;
    std::vector<int> results;
    Texts difference;
};

/** The lines of the thread of a call from that call on, the result of the step, and the state at its end. */
using Effect = Texts;

/** The lines that only `before` has (-) and those that only `after` has (+), in order. */
Texts Difference(const Texts& before, const Texts& after) {
    std::vector<std::vector<int>> common(before.size() + 1, std::vector<int>(after.size() + 1));
    for (std::size_t i = before.size(); i-- > 0;) {
        for (std::size_t j = after.size(); j-- > 0;) {
            common[i][j] = before[i] == after[j] ? common[i + 1][j + 1] + 1
                                                 : std::max(common[i + 1][j], common[i][j + 1]);
        }
    }
    Texts lines;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < before.size() || j < after.size()) {
        if (i < before.size() && j < after.size() && before[i] == after[j]) {
            ++i;
            ++j;
        } else if (i < before.size() && (j == after.size() || common[i + 1][j] >= common[i][j + 1])) {
            lines.push_back("- " + before[i++]);
        } else {
            lines.push_back("+ " + after[j++]);
        }
    }
    return lines;
}

std::string Hex(int number) {
    std::ostringstream text;
    text << std::hex << static_cast<unsigned int>(number);
    return text.str();
}

void Replace(std::string& text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
}

/** The table's "{code}" and "{hex}" stand for the result with which the call failed. */
Texts Filled(Texts lines, int result) {
    for (std::string& line : lines) {
        Replace(line, "{code}", std::to_string(result));
        Replace(line, "{hex}", Hex(result));
    }
    return lines;
}

Texts WithPlaceholders(Texts lines, int result) {
    if (result == NOTHING) {
        return lines;
    }
    for (std::string& line : lines) {
        Replace(line, std::to_string(result), "{code}");
        Replace(line, Hex(result), "{hex}");
    }
    return lines;
}

std::ostream& operator<<(std::ostream& out, const Row& row) {
    out << row.place << " =";
    for (const int result : row.results) {
        out << ' ' << result;
    }
    out << '\n';
    for (const std::string& line : row.difference) {
        out << "    " << line << '\n';
    }
    return out;
}

/** Reads failures.txt: "[step]", then "place = results", then the difference, one line each, indented. */
std::vector<Row> ReadTable() {
    std::ifstream file(FAILURES_TABLE);
    std::vector<Row> rows;
    std::string step;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("    ")) {
            rows.back().difference.push_back(line.substr(4));
        } else if (line.starts_with('[')) {
            step = line.substr(1, line.size() - 2);
        } else if (!line.empty() && !line.starts_with('#')) {
            const auto equals = line.rfind(" =");
            std::istringstream numbers(line.substr(equals + 2));
            rows.push_back({step, line.substr(0, equals), {}, {}});
            for (int number = 0; numbers >> number;) {
                rows.back().results.push_back(number);
            }
        }
    }
    return rows;
}

class FailuresTest : public testing::Test {
public:
    static std::size_t StepCount() { return Scenario().size(); }
    static std::string StepName(std::size_t step) { return Scenario().at(step).name; }

protected:
    /** One step of the scenario. */
    struct Step {
        const char* name;
        /** Changes the TV before the daemon starts. */
        std::function<void(FailuresTest&)> prepare;
        /** Runs in the daemon before the step itself. */
        std::function<void(FailuresTest&)> before;
        /** The step. @return its result */
        std::function<std::string(FailuresTest&)> run;
    };

    /** A call that must fail in a step, and the result. */
    struct Failure {
        std::string place;
        int result = 0;
    };

    /** A step that was run: the journal, in which it begins at `begin`, its result, and the state after it. */
    struct Run {
        std::vector<Entry> journal;
        std::size_t begin = 0;
        std::string result;
        Texts state;

        Texts Places() const;
        Effect EffectFrom(const std::string& place) const;
    };

    /**
     * The daemon asks for the internal speaker once in the life of a process; so this happens before the tests. The
     * call fails, which must be the same as the answer "true".
     */
    static void SetUpTestSuite() {
        static bool isDone = false;
        if (std::exchange(isDone, true)) {
            return;
        }
        fake::SkipStepTimes(true);
        FakeSeam& seam = FakeSeam::Get();
        seam.Reset();
        seam.SetFeature(INTERNAL_SPEAKER, false);
        seam.Fail(std::string("system_info_get_custom_bool(\"") + INTERNAL_SPEAKER + "\")", OF_PLATFORM);
        EXPECT_EQ(NKavrel::KVUtils::GetDefaultSpeaker(), 0);
        EXPECT_EQ(seam.journal.Calls("system_info_get_custom_bool").Count(), 1);
    }

    ~FailuresTest() override { End(); }

    static const std::vector<Step>& Scenario();

    VolumeControlImpl& Control() { return *server->getCurrentSpeaker(); }

    void PrepareTv() {
        seam.Reset();
        switchesExist = false;
        seam.SetFeature("com.norvik/featureconf/projector_feature_support", true);
        seam.SetInt(READY_KEY, 1);
        seam.SetInt(SPDIF_KEY, 1);
        seam.SetInt(MOBILE_KEY, 0);
        seam.SetInt(SUB_BT_KEY, -1);
        seam.SetStr(VIEW_KEY, OFF);
        seam.SetZones({{1, 0}, {2, 2}});
        seam.SetFocus(1);
        seam.SetEvent("FadeInPopup", true);
        for (const char* device : {"hdmi", "optical", "bt"}) {
            seam.SetInt(MIRRORING + "volume_support_" + device, 15);
            seam.SetInt(MIRRORING + "get_volume_level_" + device, 20);
            seam.SetInt(MIRRORING + "get_volume_mute_" + device, 1);
        }
    }

    void Start() {
        server = std::make_unique<NKavrel::KVServer>();
        seam.Fail("g_bus_own_name", gio::NOTHING);
        server->Init();
    }

    /** Lets the server send signals, as if the bus had given it its name. */
    void TakeName() { NKavrel::KVServer::onNameAcquired(shared.get(), BUS_NAME, server.get()); }

    void LoseName() { NKavrel::KVServer::onNameLost(shared.get(), BUS_NAME, server.get()); }

    /**
     * Holds the gain-out worker at its next round. The thread of the test alone then writes the outputs, always in
     * the same order.
     */
    [[nodiscard]] fake::BlockedCall HoldGainOut() {
        return seam.BlockNext("D \t[IN]bool NKavrel::KVAudioGainHandler::IsMainOutUpdating()");
    }

    void Signal(const char* name, GVariant* body) {
        const tools::Variant owned(g_variant_ref_sink(body));
        NKavrel::KVDbusEventHandler handler;
        handler.Init();
        handler.OnSignal(name, owned.get(), &Control());
    }

    void End() {
        seam.Judge(nullptr);
        fake::RunMainContextUntilQuiet();
        server.reset();
        gio::RemoveLeftovers();
    }

    /** Runs a step, in which one call may fail, and checks that the daemon works afterwards. */
    Run Play(const Step& step, const std::optional<Failure>& failure) {
        PrepareTv();
        step.prepare(*this);
        if (!IsStart(step)) {
            Start();
            TakeName();
            EXPECT_TRUE(fake::WorkersRest());
            step.before(*this);
            EXPECT_TRUE(fake::WorkersRest());
        }
        Run run;
        run.begin = journal.All().Entries().size();
        if (failure) {
            FailOnce(*failure);
        }
        run.result = step.run(*this);
        if (server != nullptr) {
            EXPECT_TRUE(fake::WorkersRest());
        }
        seam.Judge(nullptr);
        run.journal = journal.All().Entries();
        run.state = State();
        ExpectNextRequestWorks();
        End();
        return run;
    }

    static bool IsStart(const Step& step) { return std::string_view(step.name).starts_with("start"); }

    /** Makes the first call in this place fail. */
    void FailOnce(const Failure& failure) {
        struct Judgement {
            Places places;
            bool isDone = false;
        };
        auto judgement = std::make_shared<Judgement>();
        for (const Entry& entry : journal.All().Entries()) {
            judgement->places.Of(entry);
        }
        seam.Judge([judgement, failure](const Entry& entry) -> std::optional<int> {
            const bool isPlace = judgement->places.Of(entry) == failure.place;
            if (!isPlace || std::exchange(judgement->isDone, true)) {
                return std::nullopt;
            }
            return failure.result;
        });
    }

    /** The rows for the places of a step that the table lacks, as the daemon behaves now. */
    std::string MissingRows(const Step& step, const Run& good, const std::vector<Row>& table) {
        std::ostringstream text;
        const Texts places = good.Places();
        for (const std::string& place : std::set(places.begin(), places.end())) {
            const std::vector<int> results = UnstatedResults(place, table);
            for (const Row& row : RowsFor(step, good, place, results)) {
                text << '[' << step.name << "]\n" << row;
            }
        }
        return text.str();
    }

    /** The results with which a call in this place can fail, without those that the table has. */
    std::vector<int> UnstatedResults(const std::string& place, const std::vector<Row>& table) const {
        const std::string call = place.substr(place.find(": ") + 2);
        std::vector<int> results = FailuresOf(call.substr(0, call.find(' ')));
        const auto strike = [&](const Row& row) {
            if (row.place == place) {
                std::erase_if(results,
                              [&](int result) { return std::ranges::count(row.results, result) > 0; });
            }
        };
        std::ranges::for_each(table, strike);
        return results;
    }

    std::vector<Row> RowsFor(const Step& step, const Run& good, const std::string& place,
                             const std::vector<int>& results) {
        std::vector<Row> rows;
        for (const int result : results) {
            const Run bad = Play(step, Failure{place, result});
            const Texts difference = Difference(good.EffectFrom(place), bad.EffectFrom(place));
            const auto same = std::ranges::find_if(
                rows, [&](const Row& row) { return Filled(row.difference, result) == difference; });
            if (same == rows.end()) {
                rows.push_back({step.name,
                                place,
                                {result},
                                rows.empty() ? WithPlaceholders(difference, result) : difference});
            } else {
                same->results.push_back(result);
            }
        }
        return rows;
    }

    Texts State() const {
        Texts facts = {
            "route " + std::to_string(seam.Route()),
            "volume " + std::to_string(seam.Volume()),
            "mute " + std::to_string(seam.Mute()),
            "main gain " + std::to_string(seam.MainGainValue()),
            "sub gain " + std::to_string(seam.SubGainValue()),
            "requested level " + seam.Value(MIRRORING + "set_volume_level").value_or("-"),
            "requested mute " + seam.Value(MIRRORING + "set_volume_mute").value_or("-"),
            std::string("ready event ") + (seam.Event(READY_EVENT) ? "done" : "not done"),
        };
        for (const auto& [zone, route] : seam.Zones()) {
            facts.push_back("route of zone " + std::to_string(zone) + ": " + std::to_string(route));
        }
        const auto registered = [&](bool is, const std::string& what) {
            if (is) {
                facts.push_back("registered: " + what);
            }
        };
        registered(seam.RouteRegistration().callback != nullptr, "route");
        registered(seam.ZoneRouteRegistration().callback != nullptr, "zone routes");
        registered(!seam.FocusRegistrations().empty(), "focus");
        registered(seam.VolumeRegistration().callback != nullptr, "volume");
        registered(seam.MuteRegistration().callback != nullptr, "mute");
        registered(seam.TvMasterMuteRegistration().callback != nullptr, "TV master mute");
        for (const std::string key : {VIEW_KEY, SPDIF_KEY, MOBILE_KEY, SUB_BT_KEY, READY_KEY}) {
            registered(!seam.Watches(key).empty(), key);
        }
        for (const std::string device : {"hdmi", "optical", "bt"}) {
            for (const std::string kind : {"volume_support_", "get_volume_level_", "get_volume_mute_"}) {
                registered(!seam.Watches(MIRRORING + kind + device).empty(), kind + device);
            }
        }
        if (server != nullptr) {
            VolumeControlImpl& control = *server->getCurrentSpeaker();
            facts.push_back("output " + std::to_string(control.GetSpeakerSelection()) + ", previously " +
                            std::to_string(control.GetPrevSpeakerSelection()));
            facts.push_back(std::string("mutes the next output: ") +
                            (control.GetMuteOnSpkChanged() ? "yes" : "no"));
        }
        return facts;
    }

    void ExpectNextRequestWorks() {
        if (server == nullptr) {
            Start();
            EXPECT_TRUE(fake::WorkersRest());
        }
        switchesExist = false;
        seam.FireRoute(2);
        seam.FireRoute(0);
        int support = 0;
        EXPECT_EQ(Control().GetVolumeSupport(support), 0);
        EXPECT_EQ(Control().SetTVVolumeMute(true), 0);
        bool mute = false;
        EXPECT_EQ(Control().GetTVVolumeMute(mute), 0);
        EXPECT_TRUE(mute);
        EXPECT_EQ(Control().ApplyAudioGain(PLAYER, 100, 3, false), 0);
        EXPECT_TRUE(fake::WorkersRest());
    }

    FakeSeam& seam = FakeSeam::Get();
    fake::Journal& journal = seam.journal;
    const tools::GLibPtr<GDBusConnection> shared = fake::SharedConnection();
    std::unique_ptr<NKavrel::KVServer> server;
};

/** The text of an entry, and the function that logged it. Times are left out. */
std::string LineOf(const Entry& entry) {
    const std::string line = entry.IsCall() ? entry.text : entry.site.function + ": " + entry.text;
    if (entry.site.function != "SendPopupMsg") {
        return line;
    }
    static const std::unique_ptr<GRegex, decltype(&g_regex_unref)> TIME(
        g_regex_new("Time\\([0-9.]+\\)|Duration\\(sec\\):[0-9.e-]+", GRegexCompileFlags{}, GRegexMatchFlags{},
                    nullptr),
        &g_regex_unref);
    return tools::GLibPtr<char>(g_regex_replace_literal(TIME.get(), line.c_str(), -1, 0, "(time)",
                                                        GRegexMatchFlags{}, nullptr))
        .get();
}

/** The places of all calls of the step, in order. */
Texts FailuresTest::Run::Places() const {
    ::Places places;
    Texts all;
    for (std::size_t i = 0; i < journal.size(); ++i) {
        const std::string place = places.Of(journal[i]);
        if (i >= begin && !place.empty()) {
            all.push_back(place);
        }
    }
    return all;
}

/**
 * Lists the lines of the thread of the first call in this place from that call on, the result of the step, and the
 * state. A worker may have another round afterwards, or none, so its part ends when it sleeps again.
 */
Effect FailuresTest::Run::EffectFrom(const std::string& place) const {
    ::Places places;
    Effect effect;
    std::size_t at = 0;
    while (at < journal.size() && (places.Of(journal[at]) != place || at < begin)) {
        ++at;
    }
    if (at == journal.size()) {
        return {"no such call"};
    }
    const pid_t thread = journal[at].tid;
    effect.push_back(LineOf(journal[at]));
    for (++at; at < journal.size(); ++at) {
        const Entry& entry = journal[at];
        if (entry.tid != thread || !(entry.IsCall() || entry.IsLog(DLOG_INFO))) {
            continue;
        }
        effect.push_back(LineOf(entry));
        if (entry.text.starts_with("I Sleep ")) {
            break;
        }
    }
    effect.push_back("result: " + result);
    std::ranges::transform(state, std::back_inserter(effect),
                           [](const std::string& fact) { return "state: " + fact; });
    return effect;
}

std::string StatusText(int status) {
    return "status " + std::to_string(status);
}

/** The scenario: each request and each report in each way in which the daemon handles it. */
const std::vector<FailuresTest::Step>& FailuresTest::Scenario() {
    using T = FailuresTest;
    static const auto nothing = [](T&) {};
    static const auto withZones = [](T& t) { t.seam.SetStr(VIEW_KEY, ON); };
    static const auto withRoute = [](int route) { return [route](T& t) { t.seam.SetRoute(route); }; };
    static const auto emulated = [](int route) {
        return [route](T& t) {
            switchesExist = true;
            t.seam.SetRoute(route);
        };
    };
    static const auto muted = [](T& t) {
        t.seam.SetMute(true);
        t.seam.FireMute(1);
    };
    const auto report = [](std::function<void(T&)> action) {
        return [action](T& t) {
            action(t);
            return std::string("none");
        };
    };
    const auto status = [](std::function<int(T&)> action) {
        return [action](T& t) { return StatusText(action(t)); };
    };
    static const std::vector<Step> STEPS = {
        {"start with HDMI",
         [](T& t) {
             t.seam.SetRoute(2);
             t.seam.SetInt(MOBILE_KEY, 1);
             t.seam.SetInt(SUB_BT_KEY, 2);
         },
         nothing, report([](T& t) { t.Start(); })},
        {"start", nothing, nothing, report([](T& t) { t.Start(); })},
        {"start in multi-view",
         [](T& t) {
             t.seam.SetStr(VIEW_KEY, ON);
             t.seam.SetZones({{1, 2}, {2, 0}});
         },
         nothing, report([](T& t) { t.Start(); })},
        {"start with a TV emulator", emulated(0), nothing, report([](T& t) { t.Start(); })},
        {"start with a Bluetooth emulator", emulated(3), nothing, report([](T& t) { t.Start(); })},
        {"start with other gains", [](T& t) { t.seam.SetGain(1, 2); }, nothing, report([](T& t) {
             const auto held = t.HoldGainOut();
             t.Start();
         })},
        {"reset the player's gain", nothing, [](T& t) { t.seam.SetGain(7, 8); }, status([](T& t) {
             const auto held = t.HoldGainOut();
             return t.Control().ApplyAudioGain(PLAYER, 100, 1, false);
         })},
        {"reset the player's gain of the sub output", nothing, [](T& t) { t.seam.SetGain(7, 8); },
         status([](T& t) {
             const auto held = t.HoldGainOut();
             return t.Control().ApplyAudioGain(PLAYER, 100, 2, false);
         })},
        {"fade the player in", nothing, nothing, status([](T& t) {
             const auto held = t.HoldGainOut();
             return t.Control().ApplyVolumeFadeIn(PLAYER, 1);
         })},
        {"fade the player's sub output in", nothing, nothing, status([](T& t) {
             const auto held = t.HoldGainOut();
             return t.Control().ApplyVolumeFadeIn(PLAYER, 2);
         })},
        {"fade in after a mute", nothing, muted, status([](T& t) {
             const auto held = t.HoldGainOut();
             return t.Control().ApplyVolumeFadeIn(UNMUTE, 3);
         })},
        {"fade in while not muted", nothing, nothing,
         status([](T& t) { return t.Control().ApplyVolumeFadeIn(UNMUTE, 3); })},
        {"ramp the pulse gain at once", nothing, nothing, report([](T& t) {
             const auto held = t.HoldGainOut();
             t.Signal("ApplyPulseAudioGain", g_variant_new("(ii)", 40, 0));
             EXPECT_TRUE(t.journal.With("I Sleep PulseRampH").Wait(2));
         })},

        {"end", nothing, nothing, report([](T& t) { t.server.reset(); })},
        {"end with HDMI", withRoute(2), nothing, report([](T& t) { t.server.reset(); })},
        {"end with a TV emulator", emulated(0), nothing, report([](T& t) { t.server.reset(); })},
        {"end with a Bluetooth emulator", emulated(3), nothing, report([](T& t) { t.server.reset(); })},
        {"name taken", nothing, [](T& t) { t.LoseName(); }, report([](T& t) { t.TakeName(); })},
        {"name lost", nothing, nothing, report([](T& t) { t.LoseName(); })},

        {"get the volume", nothing, nothing, status([](T& t) {
             int volume = -7;
             return t.Control().GetTVVolume(volume);
         })},
        {"set the volume", nothing, nothing, status([](T& t) { return t.Control().SetTVVolume(30); })},
        {"set the volume while muted", nothing, muted,
         status([](T& t) { return t.Control().SetTVVolume(30); })},
        {"get the mute", nothing, nothing, status([](T& t) {
             bool mute = false;
             return t.Control().GetTVVolumeMute(mute);
         })},
        {"mute", nothing, nothing, status([](T& t) { return t.Control().SetTVVolumeMute(true); })},
        {"unmute", nothing, muted, status([](T& t) {
             const auto held = t.HoldGainOut();
             return t.Control().SetTVVolumeMute(false);
         })},
        {"get the support word of HDMI", withRoute(2), nothing, status([](T& t) {
             int support = 0;
             return t.Control().GetVolumeSupport(support);
         })},
        {"get the volume of HDMI", withRoute(2), nothing, status([](T& t) {
             int volume = -7;
             return t.Control().GetTVVolume(volume);
         })},
        {"set the volume of HDMI", withRoute(2), nothing,
         status([](T& t) { return t.Control().SetTVVolume(30); })},
        {"get the mute of HDMI", withRoute(2), nothing, status([](T& t) {
             bool mute = false;
             return t.Control().GetTVVolumeMute(mute);
         })},
        {"mute HDMI", withRoute(2), nothing, status([](T& t) { return t.Control().SetTVVolumeMute(true); })},
        {"get the volume of a Bluetooth emulator", emulated(3), nothing, status([](T& t) {
             gio::ReplyToNextCall(g_variant_new("(iii)", 1, 17, 0));
             int volume = -7;
             return t.Control().GetTVVolume(volume);
         })},
        {"set the volume of a Bluetooth emulator", emulated(3), nothing, status([](T& t) {
             gio::ReplyToNextCall(g_variant_new("(ii)", 1, 0));
             return t.Control().SetTVVolume(30);
         })},

        {"route to HDMI", nothing, nothing, report([](T& t) { t.seam.FireRoute(2); })},
        {"route back from HDMI", withRoute(2), nothing, report([](T& t) { t.seam.FireRoute(0); })},
        {"route from a TV emulator", emulated(0), nothing, report([](T& t) { t.seam.FireRoute(2); })},
        {"route from a Bluetooth emulator", emulated(3), nothing, report([](T& t) { t.seam.FireRoute(2); })},
        {"route to a TV emulator", withRoute(2), [](T&) { switchesExist = true; },
         report([](T& t) { t.seam.FireRoute(0); })},
        {"route to a Bluetooth emulator", withRoute(2), [](T&) { switchesExist = true; },
         report([](T& t) { t.seam.FireRoute(3); })},
        {"route that must be muted", withRoute(2), [](T& t) { t.Control().SetMuteOnSpkChanged(true); },
         report([](T& t) { t.seam.FireRoute(0); })},
        {"volume report", nothing, nothing, report([](T& t) { t.seam.FireVolume(33); })},
        {"mute report of HDMI", withRoute(2), nothing,
         report([](T& t) { t.seam.FireKey(MIRRORING + "get_volume_mute_hdmi", 1); })},
        {"cable pulled", withRoute(1), nothing, report([](T& t) { t.seam.FireKey(SPDIF_KEY, 0); })},
        {"cable pulled in multi-view", withZones, nothing, report([](T& t) {
             t.seam.SetInt(SUB_BT_KEY, 1);
             t.seam.FireKey(SPDIF_KEY, 0);
         })},
        {"mobile mirroring starts", nothing, nothing, report([](T& t) { t.seam.FireKey(MOBILE_KEY, 1); })},
        {"multi-view starts", nothing, nothing, report([](T& t) { t.seam.FireKey(VIEW_KEY, ON); })},
        {"focus moves", withZones, nothing, report([](T& t) { t.seam.FireFocus(2); })},
        {"zone route changes", withZones, nothing, report([](T& t) { t.seam.FireZoneRoute(2, 1); })},
        {"projector is ready", nothing, nothing, report([](T& t) { t.seam.FireKey(READY_KEY, 2); })},
        {"sub Bluetooth zone", nothing, nothing, report([](T& t) { t.seam.FireKey(SUB_BT_KEY, 2); })},

        {"buds disconnected", withRoute(2), nothing,
         report([](T& t) { t.Signal("BudsDisconnected", g_variant_new("(i)", 1)); })},
        {"speaker disconnected", withRoute(2), nothing,
         report([](T& t) { t.Signal("SpkDisconnected", g_variant_new("(is)", 2, "Box")); })},
        {"speaker disconnected in multi-view", withZones, nothing,
         report([](T& t) { t.Signal("SpkDisconnected", g_variant_new("(is)", 2, "Box")); })},
    };
    return STEPS;
}

/** The parameter is the number of a step. */
class FailuresStepTest : public FailuresTest, public testing::WithParamInterface<std::size_t> {};

TEST_P(FailuresStepTest, EachPlaceOfACallFailsAsTheTableStates) {
    const Step& step = Scenario().at(GetParam());
    const std::vector<Row> table = ReadTable();
    const Run good = Play(step, std::nullopt);
    const Texts places = good.Places();
    for (const Row& row : table) {
        if (row.step != step.name) {
            continue;
        }
        EXPECT_THAT(places, testing::Contains(row.place)) << "there is no such call";
        for (const int result : row.results) {
            SCOPED_TRACE(row.place + " = " + std::to_string(result));
            const Run bad = Play(step, Failure{row.place, result});
            EXPECT_EQ(Difference(good.EffectFrom(row.place), bad.EffectFrom(row.place)),
                      Filled(row.difference, result));
        }
    }
    EXPECT_EQ(MissingRows(step, good, table), "") << "the table lacks these rows";
}

std::string NameOf(const testing::TestParamInfo<std::size_t>& step) {
    std::string name = FailuresTest::StepName(step.param);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return g_ascii_isalpha(c) == 0; }, '_');
    return name;
}

INSTANTIATE_TEST_SUITE_P(Scenario, FailuresStepTest,
                         testing::Range(std::size_t{0}, FailuresTest::StepCount()), NameOf);

TEST_F(FailuresTest, EachRowIsOfAStep) {
    for (const Row& row : ReadTable()) {
        EXPECT_TRUE(std::ranges::any_of(Scenario(), [&](const Step& step) { return row.step == step.name; }))
            << "there is no step " << row.step;
        EXPECT_FALSE(row.results.empty()) << row.place;
    }
}

}  // namespace

/** Replaces the C library's function, because the switch files have absolute paths that no test may touch. */
extern "C" int access(const char* path, int mode) noexcept {
    if (std::string_view(path).starts_with(EMULATOR_SWITCHES)) {
        return switchesExist ? 0 : -1;
    }
    return faccessat(AT_FDCWD, path, mode, 0);
}
