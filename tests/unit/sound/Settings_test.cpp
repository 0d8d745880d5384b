// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Settings.h"

#include <Platform.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Errors.h"
#include "TvOfTests.h"

namespace fs = std::filesystem;

namespace sound {
namespace {

class SettingsTest : public testing::Test {
protected:
    SettingsTest() {
        OpenTvOfTests();
        fs::remove_all(File());
    }

    static fs::path File() { return host::Root() / ".sound"; }
    static void Put(const std::string& text) { std::ofstream(File()) << text; }

    /** Settings that differ from the default ones. */
    static Settings Some() { return {"some-server", {"2=receiver", "0=speaker"}, "woofer", 80, true, true}; }

    /** @return why a second bridge cannot have the TV */
    static std::string Refusal() {
        try {
            const Claim claim((Settings()));
            return "";
        } catch (const tools::ToolError& error) {
            return error.code == tools::EXIT_REFUSED ? error.what() : "another code";
        }
    }
};

TEST_F(SettingsTest, ABridgeIsFoundWithItsSettingsAsLongAsItRuns) {
    EXPECT_FALSE(Claim::Find());
    {
        const Claim claim(Some());
        const auto holder = Claim::Find();
        ASSERT_TRUE(holder);
        EXPECT_EQ(holder->process, getpid());
        EXPECT_EQ(holder->settings.server, "some-server");
        EXPECT_EQ(holder->settings.outputs, (std::vector<std::string>{"2=receiver", "0=speaker"}));
        EXPECT_EQ(holder->settings.sub, "woofer");
        EXPECT_EQ(holder->settings.latency, 80);
        EXPECT_TRUE(holder->settings.isDefault);
        EXPECT_TRUE(holder->settings.isRough);
        EXPECT_EQ(holder->defaultSink, "");
        EXPECT_FALSE(holder->isGuarding);
    }
    EXPECT_FALSE(Claim::Find());
}

TEST_F(SettingsTest, TheDefaultSettingsAreFoundToo) {
    const Claim claim((Settings()));
    const auto holder = Claim::Find();
    ASSERT_TRUE(holder);
    EXPECT_EQ(holder->settings.server, "");
    EXPECT_TRUE(holder->settings.outputs.empty());
    EXPECT_EQ(holder->settings.sub, "");
    EXPECT_EQ(holder->settings.latency, 60);
    EXPECT_FALSE(holder->settings.isDefault);
    EXPECT_FALSE(holder->settings.isRough);
}

TEST_F(SettingsTest, ATvHasOneBridge) {
    const Claim claim(Some());
    EXPECT_EQ(Refusal(),
              "another kavrel-sound (process " + std::to_string(getpid()) + ") plays this TV already");
    EXPECT_EQ(Claim::Find()->settings.latency, 80);
    Put("nonsense");
    EXPECT_EQ(Refusal(), "another kavrel-sound plays this TV already");
}

TEST_F(SettingsTest, WhatABridgeHasNotedIsKnownToOtherProgramsAndTheNextBridge) {
    {
        Claim claim(Some());
        claim.NoteDefaultSink("a card with a long name");
        claim.NoteGuard(true);
        EXPECT_EQ(Claim::Find()->defaultSink, "a card with a long name");
        EXPECT_TRUE(Claim::Find()->isGuarding);
        EXPECT_TRUE(claim.IsGuarding());
        claim.NoteDefaultSink("card");
        EXPECT_EQ(claim.DefaultSink(), "card");
        const std::string text = tv::ReadFile(File());
        EXPECT_EQ(text.find('\n'), text.size() - 1) << "nothing of the longer name is left";
    }
    Claim next((Settings()));
    EXPECT_EQ(next.DefaultSink(), "card");
    EXPECT_TRUE(next.IsGuarding());
    EXPECT_EQ(Claim::Find()->defaultSink, "card");
    next.NoteGuard(false);
    EXPECT_FALSE(Claim::Find()->isGuarding);
}

TEST_F(SettingsTest, TheFileIsForTheGroupAndOutlivesTheBridge) {
    const mode_t before = umask(077);
    { const Claim claim((Settings())); }
    umask(before);
    EXPECT_EQ(fs::status(File()).permissions(), fs::perms(0660));
}

TEST_F(SettingsTest, AFileWithOtherContentIsReplaced) {
    for (const char* text : {"", "nonsense", "[1]", R"({"process":"soon"})", R"({"outputs":[["2=a"]]})"}) {
        Put(text);
        EXPECT_FALSE(Claim::Find()) << text;
        const Claim claim(Some());
        EXPECT_EQ(claim.DefaultSink(), "");
        EXPECT_EQ(Claim::Find()->settings.latency, 80) << text;
    }
}

TEST_F(SettingsTest, AnOutputThatIsNoneIsLeftOut) {
    const Claim claim(Some());
    Put(R"({"outputs":["2=receiver","moon=sink"]})");
    EXPECT_EQ(Claim::Find()->settings.outputs, std::vector<std::string>{"2=receiver"});
}

TEST_F(SettingsTest, ALinkOrAFolderIsNoClaim) {
    fs::create_symlink(host::Root() / "elsewhere", File());
    EXPECT_EQ(Refusal(), "Cannot open " + File().string() + ": Too many levels of symbolic links");
    EXPECT_FALSE(Claim::Find());
    EXPECT_FALSE(fs::exists(host::Root() / "elsewhere"));
    fs::remove(File());
    {
        const Claim claim(Some());
        fs::rename(File(), host::Root() / "elsewhere");
        fs::create_symlink("elsewhere", File());
        EXPECT_FALSE(Claim::Find());
    }
    fs::remove(File());
    fs::remove(host::Root() / "elsewhere");
    fs::create_directory(File());
    EXPECT_EQ(Refusal(), "Cannot open " + File().string() + ": Is a directory");
}

// --- The options

/** @return the settings that the options make; latency -1 for options that are refused */
Settings Parsed(std::vector<std::string> options) {
    Settings settings;
    CLI::App app;
    settings.AddOptions(app);
    try {
        app.parse(std::vector<std::string>(options.rbegin(), options.rend()));
        return settings;
    } catch (const CLI::ParseError&) {
        return {.server = "", .outputs = {}, .sub = "", .latency = -1};
    }
}

TEST(SettingsOptionsTest, EachOptionHasItsSetting) {
    const Settings all =
        Parsed({"--server", "some-server", "--output", "hdmi=receiver", "--output", "0=speaker", "--sub",
                "woofer", "--latency", "2000", "--default", "--no-smoothing"});
    EXPECT_EQ(all.server, "some-server");
    EXPECT_EQ(all.outputs, (std::vector<std::string>{"2=receiver", "0=speaker"}));
    EXPECT_EQ(all.sub, "woofer");
    EXPECT_EQ(all.latency, 2000);
    EXPECT_TRUE(all.isDefault && all.isRough);
    const Settings none = Parsed({});
    EXPECT_TRUE(none.server.empty() && none.outputs.empty() && none.sub.empty());
    EXPECT_EQ(none.latency, 60);
    EXPECT_FALSE(none.isDefault || none.isRough);
}

TEST(SettingsOptionsTest, OptionsThatAreWrongAreRefused) {
    EXPECT_EQ(Parsed({"--latency", "1"}).latency, 1);
    for (const auto& options : std::vector<std::vector<std::string>>{{"--latency", "0"},
                                                                     {"--latency", "2001"},
                                                                     {"--output", "hdmi"},
                                                                     {"--output", "hdmi=a", "bt=b"},
                                                                     {"--sub", "kavrel"}}) {
        EXPECT_EQ(Parsed(options).latency, -1) << options.back();
    }
}

}  // namespace
}  // namespace sound
