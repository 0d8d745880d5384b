// SPDX-FileCopyrightText: The kavrel developers
// SPDX-License-Identifier: MIT
#ifndef ISPEAKER_H
#define ISPEAKER_H

#include <sound_manager.h>

#include <functional>

#include "KVDebug.h"

namespace NKavrel {

/** Called with the new volume level. */
using VolumeEventHandler_t = std::function<void(int)>;
/** Called with the new mute state, non-zero for muted. */
using MuteEventHandler_t = std::function<void(int)>;

/** Bits of the support word; higher bits are carried along and not interpreted. */
enum eVolumeSupport : int {
    SUPPORT_GET_VOLUME = 0x1,
    SUPPORT_SET_VOLUME = 0x2,
    SUPPORT_GET_MUTE = 0x4,
    SUPPORT_SET_MUTE = 0x8,
};

/**
 * One audio output of the TV.
 *
 * The owner calls: SetEventHandler, SetChangedCB, any get and set, then UnsetEventHandler, UnsetChangedCB and
 * the destructor back to back. A report that arrives while no handlers are set ends the process.
 * Speakers hold no locks: the owner serialises all calls; reports come on the platform's threads.
 *
 * Operations that return an int answer 0 on success, the platform's own negative code, -1 when the access
 * failed, or -4 when the output does not support the operation; on failure an out value is untouched.
 */
class ISpeaker {
public:
    virtual ~ISpeaker() = default;

    /** Volume levels are the output's own, passed through unscaled. */
    virtual int SetVolume(int volume) = 0;
    virtual int GetVolume(int& volume) = 0;
    virtual int SetVolumeMute(bool mute) = 0;
    virtual int GetVolumeMute(bool& mute) = 0;
    /** @param[out] supportType bits of eVolumeSupport */
    virtual int GetVolumeSupportType(int& supportType) = 0;
    virtual void SetEventHandler(const VolumeEventHandler_t& volumeHandler,
                                 const MuteEventHandler_t& muteHandler) = 0;
    virtual void UnsetEventHandler() = 0;
    /** Starts and stops watching the output for changes. */
    virtual void SetChangedCB() = 0;
    virtual void UnsetChangedCB() = 0;

    /**
     * Makes the speaker of a route; never null. The caller owns it.
     * An unknown route gives a speaker that supports nothing. The emulator switch files are looked at on
     * every call.
     */
    static ISpeaker* CreateSpeaker(sound_tv_output_route_e route);
};

/** Stands in for a route without volume control: every request succeeds, nothing is supported. */
class UnknownSpeaker : public ISpeaker {
public:
    UnknownSpeaker();
    ~UnknownSpeaker() override;

    int SetVolume(int volume) override;
    int GetVolume(int& volume) override;
    int SetVolumeMute(bool mute) override;
    int GetVolumeMute(bool& mute) override;
    int GetVolumeSupportType(int& supportType) override;
    void SetEventHandler(const VolumeEventHandler_t& volumeHandler,
                         const MuteEventHandler_t& muteHandler) override;
    void UnsetEventHandler() override;
    void SetChangedCB() override;
    void UnsetChangedCB() override;
};

/** Stores both handlers unless a volume handler is already there (only that one is tested). */
void StoreHandlers(VolumeEventHandler_t& volumeSlot, MuteEventHandler_t& muteSlot,
                   const VolumeEventHandler_t& volumeHandler, const MuteEventHandler_t& muteHandler,
                   const CallSite& site = {});

/** Empties both slots if there is a volume handler. */
void ClearHandlers(VolumeEventHandler_t& volumeSlot, MuteEventHandler_t& muteSlot, const CallSite& site = {});

}  // namespace NKavrel

#endif
