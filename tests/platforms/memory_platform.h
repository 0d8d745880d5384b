// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
/**
 * A second platform behind the seam: a TV in the memory of one process. It keeps all rules, and its functions are
 * virtual, so that a wrong platform overrides one and breaks one rule.
 *
 * The delivery lock is held over each report, each write that can be reported, and each change of a registration.
 * `m_state` guards the data, and is never held during a callback.
 */
#ifndef KAVREL_TESTS_PLATFORMS_MEMORY_PLATFORM_H
#define KAVREL_TESTS_PLATFORMS_MEMORY_PLATFORM_H

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace memory {

using Guard = std::lock_guard<std::recursive_mutex>;
using StateGuard = std::lock_guard<std::mutex>;
using Handler = std::function<void(const std::string& name, const std::string& text)>;

inline constexpr int NOT_THERE = -1002;
inline constexpr int WRONG = -1022;
inline constexpr int NO_SUCH_ZONE = static_cast<int>(0xFE6A0004);

struct Registration {
    int id;
    std::string topic;  // the name of a value, or "zones" for the routes of all zones
    std::string slot;   // where the process has one callback; the two mutes have one each
    const void* callback;
    Handler handler;
};

/** Names of values: "volume", "mute", "route", "zone/2", "focus", "gain/main", "setting/KEY", "feature/KEY", "event/NAME". */
class Platform {
public:
    virtual ~Platform() = default;

    // --- This process
    virtual std::optional<std::string> Read(const std::string& name);
    virtual int Set(const std::string& name, const std::string& text);
    virtual void Write(const std::string& name, const std::string& text);  // not reported
    virtual int SetInteger(const std::string& name, int value) { return Set(name, std::to_string(value)); }
    virtual int SetVolume(int volume);
    virtual int GetVolume(int* volume);
    virtual int NoSuchZone() { return NO_SUCH_ZONE; }
    virtual std::vector<int> Zones();

    virtual int Add(const std::string& topic, const std::string& slot, const void* callback, Handler handler);
    virtual int AddToSlot(const std::string& topic, const std::string& slot, Handler handler);
    virtual int AddForKey(const std::string& topic, const void* callback, Handler handler);
    virtual bool Remove(const std::string& topic, int id);
    virtual bool RemoveSlot(const std::string& topic, const std::string& slot);
    virtual bool RemoveForKey(const std::string& topic, const void* callback);
    virtual int UnknownId() { return NOT_THERE; }
    virtual const char* NodeText(const std::string& name, const std::string& text);
    virtual int Log(int priority, const char* text);
    static int WriteLine(int priority, const char* text);
    virtual int LowestPriority() { return 4; }

    // --- Somebody else
    virtual void Change(const std::string& name, const std::optional<std::string>& text);
    void SetZones(const std::set<int>& zones);
    void SetReadable(const std::string& name, bool isReadable);

protected:
    /** A change by somebody else, for the platform thread to handle. */
    struct Pending {
        std::string name;
        std::string text;  // as it was when the change was made
    };

    virtual void Start();
    virtual void Handle(const Pending& pending);
    virtual void Queue(const Pending& pending);
    virtual void Deliver(const std::string& name, const std::string& text);
    virtual std::recursive_mutex& Lock(const std::string& /*name*/) { return m_delivery; }
    static std::string TopicOf(const std::string& name);

    std::vector<Registration> Registered(const std::string& topic);
    bool IsRegistered(int id);
    std::optional<std::string> Present(const std::string& name);
    void Know(const std::string& name, const std::string& text);
    bool IsKnown(const std::string& name, const std::string& text);
    void Erase(int id);

    std::recursive_mutex m_delivery;
    std::mutex m_state;
    std::condition_variable m_changed;
    // Guarded by m_state.
    std::map<std::string, std::string> m_values = {
        {"volume", "10"}, {"mute", "0"}, {"route", "0"}, {"gain/main", "100"}, {"gain/sub", "100"}};
    std::map<std::string, std::string> m_known;        // as last reported or found
    std::map<std::string, unsigned int> m_deliveries;  // how often each value has been reported
    std::set<std::string> m_unreadable;
    std::set<int> m_zones;
    std::vector<Registration> m_registrations;
    std::deque<Pending> m_pending;
    bool m_hasStarted = false;
    int m_lastId = 0;
};

/** The platform of this process: one of the wrong ones if WRONG_PLATFORM names it. Never destroyed. */
Platform& ThePlatform();

/** Makes the wrong platform of that name; null for another name. */
Platform* MakeWrong(const std::string& name);

}  // namespace memory

#endif
