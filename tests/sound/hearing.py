# SPDX-FileCopyrightText: The kavrel developers
# SPDX-License-Identifier: MIT
"""Plays a tone into a sound server, records what a sink plays, and measures the tone in it.

The tone has a known frequency, so each millisecond of a recording gives the amplitude and the phase of the tone. A mute
or another volume leaves the phase as it is. Samples that a busy machine lost or added shift it: such a recording says
nothing about kavrel, and the scene is repeated.
"""
import array
import cmath
import contextlib
import math
import os
import statistics
import subprocess
import threading
import time
from typing import NamedTuple

from harness import PATIENCE, Process

RATE = 48000  # samples a second
TONE = 1007  # Hz; a lost block of 10, 20 or 50 ms is no whole number of periods
AMPLITUDE = 0.5  # of the tone as it is played
WINDOW = 48  # samples, a millisecond
FRAME = 8  # bytes: a sample of each of two channels, of which the first is measured
BLOCK = 4800 * FRAME  # bytes that the player passes on at once

LONGEST_HOLD = 0.01  # seconds for which a machine may hold a program in an undisturbed scene
ATTEMPTS = 20


def tone_samples():
    """Returns a second of the tone for two channels. It is a whole number of periods, so it can follow itself."""
    one = (AMPLITUDE * math.sin(2 * math.pi * TONE * n / RATE) for n in range(RATE))
    return array.array("f", (sample for value in one for sample in (value, value))).tobytes()


class Tone:
    """A program that plays the tone into a sink."""

    SECOND = tone_samples()

    def __init__(self, server, sink="kavrel", name="tone"):
        command = ["pacat", f"--server={server.address}", "--playback", "--raw", f"--device={sink}", f"--rate={RATE}",
                   "--format=float32le", "--channels=2", "--latency-msec=200", f"--stream-name={name}"]
        self.child = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "--", *command], env=server.environment(),
                                      stdin=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.over = False
        self.feeder = threading.Thread(target=self._feed)
        self.feeder.start()

    def _feed(self):
        with contextlib.suppress(BrokenPipeError):
            while not self.over:
                for start in range(0, len(self.SECOND), BLOCK):
                    self.child.stdin.write(self.SECOND[start:start + BLOCK])
        with contextlib.suppress(BrokenPipeError):
            self.child.stdin.close()

    def end(self):
        self.over = True
        self.child.kill()
        self.child.wait(PATIENCE)
        self.feeder.join(PATIENCE)


class Moment(NamedTuple):
    """A millisecond of a recording."""
    amplitude: float  # in percent of the tone as it is played
    phase: float  # radians, as against a tone that began with the recording


def fit():
    """Returns what turns a window of samples into the amplitudes of sine and cosine: a least-squares fit."""
    angle = 2 * math.pi * TONE / RATE
    sine = [math.sin(angle * n) for n in range(WINDOW)]
    cosine = [math.cos(angle * n) for n in range(WINDOW)]
    ss, cc, sc = (math.fsum(a * b for a, b in zip(*pair)) for pair in ((sine, sine), (cosine, cosine), (sine, cosine)))
    determinant = ss * cc - sc * sc
    of_sine = [(cc * s - sc * c) / determinant for s, c in zip(sine, cosine)]
    of_cosine = [(ss * c - sc * s) / determinant for s, c in zip(sine, cosine)]
    return of_sine, of_cosine


OF_SINE, OF_COSINE = fit()


def moments_of(samples):
    """Returns a Moment for each whole millisecond."""
    found = []
    for start in range(0, len(samples) - WINDOW + 1, WINDOW):
        window = samples[start:start + WINDOW]
        value = complex(math.fsum(map(float.__mul__, window, OF_SINE)), math.fsum(map(float.__mul__, window, OF_COSINE)))
        turned = cmath.phase(value) - 2 * math.pi * TONE * start / RATE
        found.append(Moment(100 * abs(value) / AMPLITUDE, turned))
    return found


def difference(one, other):
    """Returns the difference of two phases, between -pi and pi."""
    return math.remainder(other - one, 2 * math.pi)


class Recording:
    """A recording of all that a sink plays, from its start to its end."""

    AUDIBLE = 1.0  # percent; below that the phase is not worth anything
    REACH = 20  # moments before and after a place whose phases are compared
    LARGEST_SHIFT = 0.3  # radians

    def __init__(self, server, sink):
        self.data, self.arrivals = bytearray(), []
        self.news = threading.Condition()
        self.process = Process("parec", f"--server={server.address}", f"--device={sink}.monitor", "--raw",
                               f"--rate={RATE}", "--format=float32le", "--channels=2", "--latency-msec=10",
                               "--stream-name=recording", stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                               env=server.environment())
        self.reader = threading.Thread(target=self._read)
        self.reader.start()

    def _read(self):
        while more := os.read(self.process.child.stdout.fileno(), 65536):
            with self.news:
                self.data += more
                self.arrivals.append((time.time(), len(self.data) // FRAME))
                self.news.notify_all()

    def wait_for(self, seconds):
        """Waits until it has recorded so many more seconds; returns the sample at which it then is."""
        with self.news:
            wanted = len(self.data) // FRAME + int(seconds * RATE)
            assert self.news.wait_for(lambda: len(self.data) // FRAME >= wanted, PATIENCE), "nothing is recorded"
            return len(self.data) // FRAME

    def wait_until_heard(self, percent, timeout=PATIENCE):
        """Waits until the tone is heard with at least this amplitude; returns the sample at which it is."""
        return self.wait_until(lambda amplitude: amplitude >= percent, f"{percent} % is not heard", timeout)

    def wait_until_silent(self, timeout=PATIENCE):
        return self.wait_until(lambda amplitude: amplitude < 0.1, "it is not silent", timeout)

    def wait_until(self, condition, complaint, timeout=PATIENCE):
        """Waits until the amplitude fulfils the condition for 100 ms on end, in the sound recorded from now on.

        Returns the sample at which that begins.
        """
        deadline = time.monotonic() + timeout
        with self.news:
            begin = done = len(self.data) // FRAME
            amplitude = math.nan  # nothing is recorded yet
            while True:
                recorded = len(self.data) // FRAME
                for start in range(done, recorded - WINDOW + 1, WINDOW):
                    amplitude = moments_of(self._samples(start, start + WINDOW))[0].amplitude
                    done = start + WINDOW
                    if not condition(amplitude):
                        begin = done
                    elif done - begin >= RATE // 10:
                        return begin
                in_time = self.news.wait(max(0, deadline - time.monotonic()))
                assert in_time, f"{complaint} within {timeout} s, but {amplitude:.2f} %"

    def _samples(self, begin, end=None):
        end = len(self.data) // FRAME if end is None else end
        return array.array("f", bytes(self.data[FRAME * begin:FRAME * end]))[::2].tolist()

    def end(self):
        self.process.signal(9)
        self.process.wait()
        self.reader.join(PATIENCE)
        self.process.child.stdout.close()

    def moments(self, begin=0, end=None):
        with self.news:
            samples = self._samples(begin, end)
        return moments_of(samples)

    def time_of(self, sample):
        """Returns the clock time at which a sample arrived, at the latest."""
        return next(when for when, count in self.arrivals if count > sample)


def is_steady(moments, place):
    """Returns whether a moment and its neighbours are heard, all with nearly the same amplitude: then its phase is right."""
    amplitudes = [moment.amplitude for moment in moments[place - 1:place + 2]]
    return min(amplitudes) >= Recording.AUDIBLE and max(amplitudes) < 1.1 * min(amplitudes)


def shift_within(moments):
    """Returns the first place where the tone's phase jumps, as (moment, radians), or None."""
    audible = [(place, moments[place].phase) for place in range(1, len(moments) - 1) if is_steady(moments, place)]
    reach = Recording.REACH
    steps = [difference(one[1], other[1]) / (other[0] - one[0]) for one, other in zip(audible, audible[1:])]
    for number in range(len(audible) - reach):
        (before, phase), (after, next_phase) = audible[number], audible[number + reach]
        near = steps[max(0, number - reach):number + 2 * reach]
        drift = statistics.median(near) * (after - before)
        if abs(difference(phase + drift, next_phase)) > Recording.LARGEST_SHIFT:
            return before, difference(phase + drift, next_phase)
    return None


def hole_within(moments, reach=5):
    """Returns the first place of a dip of less than 5 ms, or None. No server keeps a volume for so short a time, and a
    hole of a whole period does not shift the phase."""
    for place in range(reach, len(moments) - reach):
        around = min(moments[place - reach].amplitude, moments[place + reach].amplitude)
        if around >= Recording.AUDIBLE and moments[place].amplitude < 0.9 * around:
            return place
    return None


def envelope(moments, window=10):
    """Returns the RMS of the amplitudes in windows of so many milliseconds."""
    return [math.sqrt(statistics.fmean(moment.amplitude ** 2 for moment in moments[start:start + window]))
            for start in range(0, len(moments) - window + 1, window)]


def plateaus(moments, least=15, spread=0.25):
    """Returns the amplitudes that stay within a spread, in percent of the tone, for at least so many milliseconds."""
    found, begin = [], 0
    while begin < len(moments):
        end, low, high = begin, math.inf, -math.inf
        while end < len(moments):
            low, high = min(low, moments[end].amplitude), max(high, moments[end].amplitude)
            if high - low > spread:
                break
            end += 1
        if end - begin >= least:
            found.append(statistics.median(moment.amplitude for moment in moments[begin:end]))
            begin = end
        else:
            begin += 1
    return found


class Holds:
    """Measures for how long the machine held a program that wanted to run, while it is open."""

    PERIOD = 0.005  # seconds

    def __enter__(self):
        self.worst, self.over = 0.0, threading.Event()
        self.thread = threading.Thread(target=self._measure)
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.over.set()
        self.thread.join()

    def _measure(self):
        while not self.over.is_set():
            before = time.monotonic()
            self.over.wait(self.PERIOD)
            self.worst = max(self.worst, time.monotonic() - before - self.PERIOD)


class Disturbed(AssertionError):
    """The recording has lost or added samples."""


def undisturbed(say, scene):
    """Runs a scene, which checks what it hears. If a check fails while the machine was too busy for it, runs it again."""
    for attempt in range(1, ATTEMPTS + 1):
        with Holds() as holds:
            try:
                return scene()
            except AssertionError as failure:
                was_disturbed = isinstance(failure, Disturbed) or holds.worst > LONGEST_HOLD
                if attempt == ATTEMPTS or not was_disturbed:
                    raise
                say(f"repeated: {str(failure).splitlines()[0][:100]}; the machine held programs up to "
                    f"{1000 * holds.worst:.0f} ms")
    return None
