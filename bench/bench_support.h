#pragma once

#include <algorithm>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace tarnbloom::bench {

// An RGB photo in memory, 8 bits per channel.
struct Photo {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> rgb;
};

// A JPEG file decoded with libjpeg-turbo (no colour management).
Photo decodeJpeg(const std::filesystem::path& path);
// A bundled sample photo (samples/NAME).
Photo samplePhoto(const std::string& jpegName);

// `photo` scaled to width × height by bilinear interpolation plus
// deterministic grain (± grainAmplitude levels), so a large JPEG of it
// compresses like a real photo rather than like a smooth upscale.
Photo scaledPhoto(const Photo& photo, int width, int height, double grainAmplitude = 3.0);

std::vector<uint8_t> encodeJpeg(const Photo& photo, int quality);
void writePng(const std::filesystem::path& path, const Photo& photo);
void writeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes);
// A binary PPM of the photo, as command-line peers read it.
void writePpm(const std::filesystem::path& path, const Photo& photo);
// Seconds a shell command takes; exits the benchmark when it fails.
double timeCommand(const std::string& command);

// Peak resident memory of this process so far, in MiB.
double peakRssMiB();

// The middle value: one slow run (a flush, another process) moves it little.
inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

inline double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace tarnbloom::bench
