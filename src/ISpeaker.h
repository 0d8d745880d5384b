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
 * Drives one audio output of the TV.
 *
 * The owner calls SetEventHandler and SetChangedCB, then any getter and setter, and at the end
 * UnsetEventHandler, UnsetChangedCB and the destructor without a pause between them. A report that arrives
 * while no handlers are set ends the process. A speaker has no lock: the owner serialises all calls, and
 * reports arrive on the platform's threads.
 *
 * An operation that returns an int answers 0 on success, the platform's own negative code, -1 if the access
 * failed, or -4 if the output does not support the operation. A failed operation leaves an out value as it
 * was.
 */
class ISpeaker {
public:
    virtual ~ISpeaker() = default;

    /** Volume levels are the output's own; nothing scales them. */
    virtual int SetVolume(int volume) = 0;
    virtual int GetVolume(int& volume) = 0;
    virtual int SetVolumeMute(bool mute) = 0;
    virtual int GetVolumeMute(bool& mute) = 0;
    /** @param[out] supportType bits of eVolumeSupport */
    virtual int GetVolumeSupportType(int& supportType) = 0;
    virtual void SetEventHandler(const VolumeEventHandler_t& volumeHandler,
                                 const MuteEventHandler_t& muteHandler) = 0;
    virtual void UnsetEventHandler() = 0;
    /** Starts to watch the output for changes of volume and mute. */
    virtual void SetChangedCB() = 0;
    virtual void UnsetChangedCB() = 0;

    /**
     * Makes the speaker that drives the output of a route. The caller owns it. An unknown route gets a
     * speaker that supports nothing. Every call looks for the emulator switch files again.
     * @return never null
     */
    static ISpeaker* CreateSpeaker(sound_tv_output_route_e route);
};

/** The speaker of a route without volume control: every request succeeds, and the support word is 0. */
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

/** Stores both handlers, unless a volume handler is stored already. It replaces a stored mute handler. */
void StoreHandlers(VolumeEventHandler_t& storedVolume, MuteEventHandler_t& storedMute,
                   const VolumeEventHandler_t& volumeHandler, const MuteEventHandler_t& muteHandler,
                   const CallSite& site = {});

/** Removes both handlers, unless no volume handler is stored. */
void ClearHandlers(VolumeEventHandler_t& storedVolume, MuteEventHandler_t& storedMute,
                   const CallSite& site = {});

}  // namespace NKavrel

#endif
