// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include "Recording.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "Errors.h"
#include "PlotScript.h"

namespace tv {
namespace {

const std::string HEADER = "seconds,main_gain,sub_gain,volume,mute,output,output_level,output_mute,event\n";

constexpr std::optional<int> NONE;

std::string Refusal(const std::string& text) {
    try {
        static_cast<void>(ParseRecording("some.csv", text));
        return "";
    } catch (const tools::ToolError& error) {
        return error.code == tools::EXIT_REFUSED ? error.what() : "another code";
    }
}

TEST(RecordingTest, ALineHasACellForEachColumn) {
    EXPECT_EQ(RecordingHeader(), HEADER);
    EXPECT_EQ(ToLine({1.25, {100, 95, 10, 0, 2, 40, 1}, {}, "route hdmi"}),
              "1.250000,100,95,10,0,hdmi,40,1,route hdmi\n");
    EXPECT_EQ(ToLine({0.0000004, {NONE, -3, NONE, NONE, 99, NONE, NONE}, {}, ""}), "0.000000,,-3,,,99,,,\n");
}

TEST(RecordingTest, TheSoundIsBeforeTheEvent) {
    EXPECT_EQ(RecordingHeader(true),
              "seconds,main_gain,sub_gain,volume,mute,output,output_level,output_mute,heard,event\n");
    EXPECT_EQ(ToLine({2, {}, 70.71068, ""}, true), "2.000000,,,,,,,,70.7107,\n");
    EXPECT_EQ(ToLine({2, {}, {}, "end"}, true), "2.000000,,,,,,,,,end\n");
}

TEST(RecordingTest, AnEventHasNothingThatEndsItsCell) {
    EXPECT_EQ(ToLine({0,
                      {},
                      {},
                      "a,b\"c\nd\x7F\x1F"
                      "e f\xC3\xBC"}),
              "0.000000,,,,,,,,a b c d  e f\xC3\xBC\n");
}

TEST(RecordingTest, ARecordingIsReadAsItWasWritten) {
    const std::string text = HEADER + "0.000000,100,95,10,0,tv,10,0,start\n" + "0.500000,,,,,99,-5,1,\n" +
                             "0.500000,0,0,0,1,hdmi-2,,,route hdmi-2\n";
    const std::vector<Sample> samples = ParseRecording("some.csv", text);
    ASSERT_EQ(samples.size(), 3U);
    EXPECT_EQ(samples[1].values[OUTPUT], 99);
    EXPECT_EQ(samples[2].values[OUTPUT], 8);
    std::string again = RecordingHeader();
    for (const Sample& sample : samples) {
        again += ToLine(sample);
    }
    EXPECT_EQ(again, text);
}

TEST(RecordingTest, ColumnsHaveAnyOrderAndUnknownOnesAreIgnored) {
    const std::vector<Sample> samples =
        ParseRecording("some.csv", "seconds,heard,colour,mute,event\n3,0.5,red,1,a\n4,,,,\n");
    ASSERT_EQ(samples.size(), 2U);
    EXPECT_EQ(samples[0].heard, 0.5);
    EXPECT_EQ(samples[0].values[MUTE], 1);
    EXPECT_EQ(samples[0].values[VOLUME], std::nullopt);
    EXPECT_EQ(samples[0].event, "a");
    EXPECT_EQ(samples[1].heard, std::nullopt);
    EXPECT_EQ(samples[1].values[MUTE], std::nullopt);
}

TEST(RecordingTest, ALineThatIsWrongIsNamed) {
    const std::string noRecording = "some.csv:1: this is not a recording of kavrel-tv record";
    EXPECT_EQ(Refusal("seconds,event\n0,start\n"), noRecording);
    EXPECT_EQ(Refusal("time,mute,event\n0,1,start\n"), noRecording);
    EXPECT_EQ(Refusal("seconds,mute,note\n0,1,start\n"), noRecording);
    EXPECT_EQ(Refusal("seconds,mute,event\n"), "some.csv:1: the recording is empty");
    const std::string wrongLine = "some.csv:3: a time, 1 values and an event were expected";
    for (const std::string line :
         {"1,2", "1,2,x,y", "x,1,", ",1,", "inf,1,", "nan,1,", "1,x,", "1,tv,", "1,1.5,", ""}) {
        EXPECT_EQ(Refusal("seconds,mute,event\n0,1,start\n" + line + "\n"), wrongLine) << line;
    }
    EXPECT_EQ(Refusal("seconds,heard,event\n0,inf,\n"),
              "some.csv:2: a time, 1 values and an event were expected");
    EXPECT_EQ(Refusal("seconds,mute,event\n1,1,\n0.9,1,\n"),
              "some.csv:3: the time is earlier than on the line before");
}

// --- The script for gnuplot

std::string Script(const std::string& rows, const std::string& header = HEADER) {
    return PlotScript(ParseRecording("some.csv", header + rows), "it's \x1B a title", PictureType::SVG);
}

bool Has(const std::string& script, const std::string& part) {
    return script.find(part) != std::string::npos;
}

std::size_t Count(const std::string& script, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = script.find(part); at != std::string::npos; at = script.find(part, at + 1)) {
        ++count;
    }
    return count;
}

TEST(PlotScriptTest, TheWholeScriptOfASmallRecording) {
    EXPECT_EQ(
        Script("0,100,,start\n0.123456789,50,1,cable in\n0.5,50,0,end\n", "seconds,main_gain,mute,event\n"),
        R"($samples << END_OF_DATA
0 100 NaN NaN NaN NaN NaN NaN
0.123456789 50 NaN NaN 1 NaN NaN NaN
0.5 50 NaN NaN 0 NaN NaN NaN
0.5 50 NaN NaN 0 NaN NaN NaN
END_OF_DATA
$muted << END_OF_DATA
0.123456789 0.5 -5 105
END_OF_DATA
set terminal svg size 960,665 dynamic rounded font 'sans-serif,13' background '#ffffff'
set multiplot title 'it''s ? a title' noenhanced font ',15'

set encoding utf8
set grid xtics ytics linetype 1 linecolor rgb '#e0e0e0'
set lmargin at screen 0.12
set rmargin at screen 0.9
set format x ''
set xrange [0:0.5]
set arrow from 0.123456789, graph 0 to 0.123456789, graph 1 nohead dashtype 3 linecolor rgb '#808080'
set label 'cable in' at 0.123456789, graph 1.02 rotate by 35 font ',10' textcolor rgb '#505050' noenhanced
set tmargin at screen 0.789473684211
set bmargin at screen 0.458646616541
set ylabel 'gain (%)'
set ytics 20
set yrange [-5:105]
set key at screen 0.51,0.421052631579 center horizontal maxrows 1
plot $samples using 1:2 with steps title 'main output gain' linewidth 2.5 linecolor rgb '#0060c0'
unset label
set xlabel 'time (s)'
set format x '%g'
set tmargin at screen 0.383458646617
set bmargin at screen 0.142857142857
set ylabel 'volume'
set ytics autofreq
set yrange [-5:105]
set key at screen 0.51,0.0375939849624 center horizontal maxrows 1
plot $muted using (($1+$2)/2):(($3+$4)/2):1:2:3:4 with boxxyerror title 'TV muted' linecolor rgb '#c02020' fillstyle solid 0.25 border
unset label
unset multiplot
)");
}

TEST(PlotScriptTest, OutputsHaveARowEach) {
    const std::string script =
        Script("0,,,10,,tv,10,1,start\n1,,,10,,hdmi,140,0,\n2,,,10,,tv,-30,0,\n3,,,10,,99,,1,end\n");
    EXPECT_TRUE(Has(script, "set ytics ('tv' 0, 'hdmi' 1, '99' 2)\nset yrange [3-0.5:-0.5]\n"));
    EXPECT_TRUE(
        Has(script, "$used << END_OF_DATA\n0 1 -0.35 0.35\n2 3 -0.35 0.35\n1 2 0.65 1.35\n3 3 1.65 2.35\n"));
    EXPECT_TRUE(Has(script, "$used_muted << END_OF_DATA\n0 1 -0.35 0.35\n3 3 1.65 2.35\n"));
    EXPECT_TRUE(Has(script, "set yrange [-30:140]\n"));  // of the volumes
    EXPECT_EQ(Count(script, "set xlabel"), 1U);
    EXPECT_TRUE(Has(script, "size 960,697 "));
}

TEST(PlotScriptTest, WhatIsDrawnFirstIsBehindTheRest) {
    const std::string script =
        Script("0,100,95,10,40,5,start\n", "seconds,main_gain,sub_gain,volume,output_level,heard,event\n");
    EXPECT_TRUE(
        Has(script,
            "plot $heard using 1:2 with lines title 'heard' linewidth 2 linecolor rgb '#e0a0a0', "
            "$samples using 1:2 with steps title 'main output gain' linewidth 2.5 linecolor rgb "
            "'#0060c0', $samples using 1:3 with steps title 'sub output gain' linewidth 1.5 dashtype 2 "
            "linecolor rgb '#e07000'\n"));
    EXPECT_TRUE(Has(script,
                    "plot $samples using 1:7 with steps title 'output level' linewidth 6 linecolor rgb "
                    "'#d0b0f0', $samples using 1:4 with steps title 'TV volume' linewidth 2 linecolor rgb "
                    "'#208040'\n"));
}

TEST(PlotScriptTest, APngHasASizeAndAFont) {
    const std::vector<Sample> samples = ParseRecording("some.csv", "seconds,mute,event\n0,0,start\n");
    EXPECT_TRUE(Has(PlotScript(samples, "a title", PictureType::PNG),
                    "\nset terminal pngcairo size 960,575 rounded font 'sans,10' background '#ffffff'\n"));
}

TEST(PlotScriptTest, EventsThatAreTooCloseShareAMark) {
    const std::string header = "seconds,mute,event\n";
    EXPECT_EQ(Count(Script("0,0,start\n100,0,end\n", header), "set label '"), 0U);
    const std::string script =
        Script("0,0,start\n10,0,first\n13.9,0,second\n14,0,third\n100,0,end\n", header);
    EXPECT_TRUE(Has(script, "set label 'first +1' at 10,"));
    EXPECT_TRUE(Has(script, "set label 'third' at 14,"));
    EXPECT_EQ(Count(script, "set label '"), 2U);
}

TEST(PlotScriptTest, AMarkHasTheEndOfALongPathAndIsClipped) {
    const std::string header = "seconds,mute,event\n";
    EXPECT_TRUE(Has(Script("0,0,settings/db/some/text a/b\n", header), "set label 'text a/b' at"));
    EXPECT_TRUE(
        Has(Script("0,0,0123456789012345678901234\n", header), "set label '012345678901234567890...' at"));
    EXPECT_TRUE(
        Has(Script("0,0,012345678901234567890123\n", header), "set label '012345678901234567890123' at"));
}

TEST(PlotScriptTest, AMomentIsATenthOfASecondWide) {
    EXPECT_TRUE(Has(Script("7,0,start\n", "seconds,mute,event\n"), "set xrange [7:7.1]\n"));
}

TEST(PlotScriptTest, SilenceIsNotDrawn) {
    EXPECT_FALSE(Has(Script("0,0,\n1,0,\n", "seconds,heard,event\n"), "$heard"));
    EXPECT_TRUE(Has(Script("0,2,\n1,8,\n", "seconds,heard,event\n"),
                    "$heard << END_OF_DATA\n0 25\n1 100\nEND_OF_DATA\n"));
    EXPECT_TRUE(Has(Script("0,0.2,\n1,0.8,\n", "seconds,heard,event\n"),
                    "$heard << END_OF_DATA\n0 25\n1 100\nEND_OF_DATA\n"));
}

}  // namespace
}  // namespace tv
