#pragma once

#include <QString>

#include <cstdint>

// A clip as a save writes it, for the tests of what the library does with clips: `seconds` of real
// H.264 from the tests' libx264 source (a key frame every two seconds, 60 frames a second)
// through the clip export into the recordings folder and, when `withSound`, its sound: a tone whose
// pitch changes every tenth of a second (300 Hz, 350 Hz, … and round again after a second), so that
// any stretch of it shows where in the clip it was taken from.
// `bitRate` in bits per second (the capture's is 18 Mbit/s; the tests' small pictures need less).
QString makeTestClip(int seconds, int width, int height, bool withSound,
                     int64_t bitRate = 4'000'000);

// The pitch of the test clip's sound at `seconds` into the clip.
double testClipPitch(double seconds);
