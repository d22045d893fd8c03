#!/usr/bin/python3
"""Writes an endless tone sweep as raw signed 16-bit little-endian stereo.

Usage: tone-sweep.py [RATE] [LOW_HZ] [HIGH_HZ] [SECONDS_PER_SWEEP]
The tone rises logarithmically from LOW to HIGH and starts again; the left
channel plays it at full level, the right channel at half level.
"""
import math
import struct
import sys


def main():
    rate = int(sys.argv[1]) if len(sys.argv) > 1 else 48000
    low = float(sys.argv[2]) if len(sys.argv) > 2 else 200.0
    high = float(sys.argv[3]) if len(sys.argv) > 3 else 2000.0
    period = float(sys.argv[4]) if len(sys.argv) > 4 else 5.0
    out = sys.stdout.buffer
    phase = 0.0
    sample = 0
    chunk = rate // 20
    amplitude = 0.5 * 32767
    while True:
        frames = bytearray()
        for _ in range(chunk):
            t = (sample % int(rate * period)) / rate
            frequency = low * (high / low) ** (t / period)
            phase = (phase + 2.0 * math.pi * frequency / rate) % (2.0 * math.pi)
            value = math.sin(phase)
            frames += struct.pack("<hh", int(amplitude * value), int(0.5 * amplitude * value))
            sample += 1
        try:
            out.write(frames)
            out.flush()
        except BrokenPipeError:
            return


if __name__ == "__main__":
    main()
