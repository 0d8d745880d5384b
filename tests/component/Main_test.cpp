// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#include <dlfcn.h>
#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <tuple>

#include "DaemonTest.h"

using NKavrel::KVServer;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

/** The daemon's main(); see MainSymbol.h. */
extern "C" int DaemonMain(int argc, char** argv);
extern "C" const char kavrel_version[];

namespace {

/** A start without arguments. */
char name[] = "kavreld";
char* arguments[] = {name, nullptr};

constexpr const char* NEW_LOOP = "g_main_loop_new()";
constexpr const char* RUN_LOOP = "g_main_loop_run()";
constexpr const char* RELEASE_LOOP = "g_main_loop_unref()";
constexpr const char* NEW_SERVER = "new KVServer()";

/** The daemon's main loop while it exists. */
std::atomic<GMainLoop*> mainLoop;
/** The server that main created last. main never deletes it, so the test does. */
std::atomic<void*> lastServer;
/** The limits of the heaps that main has set, by option. */
std::map<int, int> heapLimits;

template <typename Function>
Function* Real(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// GLib's own threads also create loops, but for other contexts.
GMainLoop* g_main_loop_new(GMainContext* context, gboolean is_running) {
    if (context != nullptr) {
        return Real(g_main_loop_new, "g_main_loop_new")(context, is_running);
    }
    if (fake::FakeSeam::Get().Enter("g_main_loop_new", "")) {
        return nullptr;
    }
    mainLoop = Real(g_main_loop_new, "g_main_loop_new")(context, is_running);
    return mainLoop;
}

void g_main_loop_run(GMainLoop* loop) {
    if (loop == mainLoop) {
        fake::FakeSeam::Get().Enter("g_main_loop_run", "");
    }
    Real(g_main_loop_run, "g_main_loop_run")(loop);
}

void g_main_loop_unref(GMainLoop* loop) {
    if (loop == mainLoop) {
        fake::FakeSeam::Get().Enter("g_main_loop_unref", "");
        mainLoop = nullptr;
    }
    Real(g_main_loop_unref, "g_main_loop_unref")(loop);
}

extern "C" int mallopt(int option, int value) noexcept {
    heapLimits[option] = value;
    return 1;
}

/** Catches the server: only main allocates this size without exceptions. */
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (size != sizeof(KVServer)) {
        return std::malloc(size);
    }
    if (fake::FakeSeam::Get().Enter("new KVServer", "")) {
        return nullptr;
    }
    void* memory = ::operator new(size);
    lastServer = memory;
    return memory;
}

namespace {

/**
 * Runs main() on the test's thread. Another thread makes it leave its loop, which the real daemon never does.
 */
class MainTest : public testing::Test {
protected:
    ~MainTest() override {
        fake::RunMainContextUntilQuiet();
        std::unique_ptr<KVServer>{static_cast<KVServer*>(lastServer.exchange(nullptr))};
        gio::RemoveLeftovers();
    }

    /** Runs main. Once its loop runs, calls `visit` on another thread and then quits the loop. */
    int RunMain(const std::function<void()>& visit) {
        std::thread visitor([&] {
            EXPECT_TRUE(journal.With(RUN_LOOP).Wait());
            visit();
            const auto quit = [](void*) {
                g_main_loop_quit(mainLoop);
                return G_SOURCE_REMOVE;
            };
            g_idle_add(quit, nullptr);
        });
        const int result = DaemonMain(1, arguments);
        visitor.join();
        return result;
    }

    fake::FakeSeam& seam = fake::FakeSeam::Get();
    fake::Journal& journal = seam.journal;
};

TEST_F(MainTest, WithoutALoopItEndsWithZero) {
    seam.Fail("g_main_loop_new", 0);
    heapLimits.clear();
    EXPECT_EQ(DaemonMain(1, arguments), 0);
    EXPECT_EQ(heapLimits, (std::map<int, int>{{M_ARENA_MAX, 2}, {M_MMAP_THRESHOLD, 128 * 1024}}));
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("main: I Started", NEW_LOOP, "main: E Failed to create a main loop"));
}

TEST_F(MainTest, WithoutAServerItReleasesTheLoopAndEndsWithZero) {
    seam.Fail("new KVServer", 0);
    EXPECT_EQ(DaemonMain(1, arguments), 0);
    EXPECT_THAT(journal.Here().Lines(), ElementsAre("main: I Started", NEW_LOOP, NEW_SERVER,
                                                    "main: E Failed to create KVServer", RELEASE_LOOP));
}

TEST_F(MainTest, WithoutAnInterfaceItRunsItsLoopWithoutANameOrAVolumeControl) {
    seam.Fail("g_dbus_node_info_new_for_xml", gio::REFUSED);
    bool served = false;
    EXPECT_EQ(RunMain([&] {
                  const auto serve = [](void* flag) {
                      *static_cast<bool*>(flag) = true;
                      return G_SOURCE_REMOVE;
                  };
                  g_idle_add(serve, &served);
              }),
              0);
    EXPECT_TRUE(served);
    EXPECT_THAT(journal.Here().Lines(),
                ElementsAre("main: I Started", NEW_LOOP, NEW_SERVER, "g_dbus_node_info_new_for_xml()",
                            "Init: E Failed g_dbus_node_info_new_for_xml. refused by the test", RUN_LOOP,
                            RELEASE_LOOP, "main: I Stopped"));
}

TEST_F(MainTest, ItServesUntilItsLoopIsLeftAndLeavesTheServerAlive) {
    std::string answer;
    EXPECT_EQ(RunMain([&] {
                  EXPECT_TRUE(journal.With("LwipcEventDone(\"/tmp/.kavrel_ready\")").Wait());
                  const fake::BusClient client;
                  const auto reply =
                      client.Call(BUS_NAME, OBJECT_PATH, INTERFACE, "GetSpeakerVolume", nullptr);
                  answer = reply == nullptr ? "no reply" : gio::PrintedWithTypes(reply.get());
              }),
              0);
    EXPECT_EQ(answer, "(10, 0)");
    const std::string constructor = "NKavrel::KVServer::KVServer()";
    EXPECT_THAT(
        journal.Here().AndScopes().Lines(),
        AllOf(HasInOrder({"main: I Started", NEW_LOOP, NEW_SERVER, constructor,
                          "bool NKavrel::KVServer::Init()", RUN_LOOP, RELEASE_LOOP, "main: I Stopped"}),
              Not(Contains("NKavrel::KVServer::~KVServer()"))));
    EXPECT_THAT(journal.Traces().Texts(), Not(Contains(testing::HasSubstr("main()"))));
}

/** Runs main with one argument. @return its exit status, and what it printed on standard output and error */
std::tuple<int, std::string, std::string> Answer(std::string argument) {
    char* both[] = {name, argument.data(), nullptr};
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = DaemonMain(2, both);
    const std::string out = testing::internal::GetCapturedStdout();
    return {status, out, testing::internal::GetCapturedStderr()};
}

TEST(MainArgumentsTest, HelpAndVersionAreAnsweredAndOtherArgumentsRefused) {
    EXPECT_EQ(Answer("--version"), std::tuple(0, std::string("kavreld ") + kavrel_version + '\n', ""));
    const auto [status, help, complaint] = Answer("--help");
    EXPECT_EQ(status, 0);
    EXPECT_THAT(help, testing::StartsWith("Usage: kavreld [--help | --version]\n"));
    EXPECT_EQ(complaint, "");
    EXPECT_EQ(Answer("-h"), std::tuple(64, "", "kavreld: it takes no argument except --help or --version\n"));
    EXPECT_THAT(fake::FakeSeam::Get().journal.All().Entries(), testing::IsEmpty())
        << "the TV has been touched";
}

}  // namespace
