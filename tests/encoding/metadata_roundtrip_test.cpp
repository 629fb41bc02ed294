#include <gtest/gtest.h>

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "codec/decode.h"
#include "encoding/image_writer.h"
#include "encoding/jpeg_encoder.h"
#include "encoding/output_metadata.h"
#include "encoding/webp_encoder.h"
#include "engine/engine_error.h"
#include "engine/resample_engine.h"
#include "fixtures.h"
#include "test_support.h"

namespace tarnbloom::encoding {
namespace {

using codec::PixelBuffer;
using codec::SampleFormat;
using nlohmann::json;

// Every writer behind one call, as the exporter uses them.
std::vector<uint8_t> encodeAs(ExportFormat format, const PixelBuffer& image,
                              const OutputMetadata& metadata, bool lossless = false) {
  switch (format) {
    case ExportFormat::png: return encodePNG(image, metadata);
    case ExportFormat::tiff: return encodeTIFF(image, metadata);
    case ExportFormat::jpeg: return JPEGEncoder::encode(image, metadata, {}).data;
    case ExportFormat::webp: return WebPEncoder::encode(image, metadata, {lossless});
    case ExportFormat::avif:
    case ExportFormat::heic: return encodeHEIF(format, image, metadata);
  }
  return {};
}

// A camera-like source: EXIF with a location and orientation 6, XMP with
// its own orientation, a location and non-EXIF fields.
SourceImage cameraSource(const testing::TempDir& dir) {
  std::vector<uint8_t> rgb(24 * 16 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 7);
  const auto path = dir / "camera.jpg";
  testing::writeJpeg(path, 24, 16, rgb, 6);
  const int status = testing::runCommand(
      "exiftool -q -overwrite_original -Make=TestCam -GPSLatitude=51.5 -GPSLatitudeRef=N "
      "-GPSLongitude=0.1 -GPSLongitudeRef=W -XMP-dc:Title=Hello -XMP-exif:GPSLatitude='51,30.0N' "
      "-XMP-exif:ExposureTime=1/100 -XMP-tiff:Orientation=6 -XMP-photoshop:City=London '" +
      path.string() + "'");
  EXPECT_EQ(status, 0);
  return ResampleEngine::load(path);
}

std::map<std::string, json> readBack(const std::vector<std::filesystem::path>& files) {
  std::string command = "exiftool -j -a -G1 -n";
  for (const auto& f : files) command += " '" + f.string() + "'";
  std::string out;
  EXPECT_EQ(testing::runCommand(command, &out), 0);
  std::map<std::string, json> byFile;
  for (const auto& entry : json::parse(out)) byFile[entry["SourceFile"]] = entry;
  return byFile;
}

std::set<std::string> xmpTags(const json& tags) {
  std::set<std::string> found;
  for (const auto& [key, value] : tags.items())
    if (key.rfind("XMP-", 0) == 0 && key != "XMP-x:XMPToolkit") found.insert(key);
  return found;
}

struct PolicyCase {
  const char* name;
  ColourPolicy policy;
  bool estimate;
};

// Each writable format under each policy, read back by exiftool.
TEST(ExportMetadata, EveryFormatCarriesExactlyWhatThePolicySays) {
  using enum MetadataToggle;
  testing::TempDir dir;
  const SourceImage source = cameraSource(dir);
  ASSERT_EQ(source.orientedWidth(), 16);
  const std::vector<PolicyCase> policies = {
      {"defaults", {}, false},
      {"keepall", {ProfilePolicy::keep, keep, keep, keep, keep, "white"}, false},
      {"noexif", {ProfilePolicy::keep, strip, strip, keep, keep, "white"}, false},
      {"noxmp-ai", {ProfilePolicy::srgb, keep, keep, strip, strip, "white"}, true},
      {"keep-ai", {ProfilePolicy::srgb, keep, keep, keep, strip, "white"}, true},
  };
  const ResampleEngine engine(source);
  const PixelBuffer image = engine.exportImage({32, 48}, ResampleMethod::exact, RenderOutput{});

  std::vector<std::filesystem::path> files;
  std::vector<std::pair<ExportFormat, const PolicyCase*>> cases;
  for (const ExportFormat format : writableFormats())
    for (const PolicyCase& c : policies) {
      std::vector<std::string> claims;
      if (c.estimate) claims.emplace_back(kClaimEstimateExport);
      const auto metadata = OutputMetadata::resolve(source, c.policy, claims, 32, 48);
      files.push_back(dir / (std::string(c.name) + "." + std::string(fileExtension(format))));
      testing::writeBytes(files.back(), encodeAs(format, image, metadata));
      cases.emplace_back(format, &c);
    }
  const auto tags = readBack(files);
  for (size_t i = 0; i < files.size(); ++i) {
    const auto& [format, c] = cases[i];
    const ColourPolicy& p = c->policy;
    const json& t = tags.at(files[i].string());
    SCOPED_TRACE(files[i].filename().string());
    EXPECT_EQ(t.contains("ICC_Profile:ProfileDescription"), p.icc == keep);
    EXPECT_EQ(t.contains("IFD0:Make"), p.exif == keep);
    EXPECT_EQ(t.contains("GPS:GPSLatitude"), p.exif == keep && p.gps == keep);
    if (p.exif == keep) {
      EXPECT_EQ(t.value("ExifIFD:ExifImageWidth", 0), 32);
      EXPECT_EQ(t.value("ExifIFD:ExifImageHeight", 0), 48);
      EXPECT_EQ(t.value("IFD0:Orientation", 0), 1);
    }
    EXPECT_FALSE(t.contains("IFD1:ThumbnailOffset"));
    const bool xmpKept = p.xmp == keep;
    EXPECT_EQ(t.contains("XMP-dc:Title"), xmpKept);
    EXPECT_EQ(t.contains("XMP-photoshop:City"), xmpKept);
    EXPECT_EQ(t.contains("XMP-exif:ExposureTime"), xmpKept && p.exif == keep);
    EXPECT_EQ(t.contains("XMP-exif:GPSLatitude"), xmpKept && p.exif == keep && p.gps == keep);
    if (t.contains("XMP-tiff:Orientation")) {
      EXPECT_EQ(t["XMP-tiff:Orientation"], 1);
    }
    const std::string disclosure = t.value("XMP-iptcExt:DigitalSourceType", "");
    EXPECT_EQ(disclosure, c->estimate ? std::string(kDigitalSourceTypeComposite) : "");
    if (!xmpKept && c->estimate) {
      EXPECT_EQ(xmpTags(t), std::set<std::string>{"XMP-iptcExt:DigitalSourceType"});
    }
    EXPECT_EQ(t.value("Composite:ImageSize", ""), "32 48");
  }
}

TEST(ExportMetadata, DisclosureRules) {
  const std::vector<std::string> estimate{std::string(kClaimEstimateExport)};
  const std::vector<std::string> background{std::string(kClaimBackgroundRemoval)};
  ColourPolicy stripXmp;
  stripXmp.xmp = MetadataToggle::strip;
  // Background removal alone discloses only where XMP is written anyway.
  EXPECT_FALSE(resolveXmp(std::nullopt, stripXmp, background));
  EXPECT_NE(resolveXmp(std::nullopt, {}, background).value_or("").find("DigitalSourceType"),
            std::string::npos);
  EXPECT_NE(resolveXmp(std::nullopt, stripXmp, estimate).value_or("").find("compositeWithTrained"),
            std::string::npos);
  EXPECT_FALSE(resolveXmp(std::nullopt, {}, {}));
  // A packet exiv2 cannot parse is never carried; the disclosure still is.
  const std::string broken = "<x:xmpmeta><rdf:RDF><unclosed>";
  bool dropped = false;
  EXPECT_FALSE(resolveXmp(broken, {}, {}, &dropped));
  EXPECT_TRUE(dropped);
  const auto disclosed = resolveXmp(broken, {}, estimate).value_or("");
  EXPECT_NE(disclosed.find("compositeWithTrained"), std::string::npos);
  EXPECT_EQ(disclosed.find("unclosed"), std::string::npos);
}

// One bare "&" makes a packet malformed XML that exiftool and viewers read
// all the same; its location must not go out under a policy that strips
// it, from any container, and the disclosure must still go out.
TEST(ExportMetadata, ADamagedPacketIsDroppedFromEveryContainer) {
  testing::TempDir dir;
  const std::string damaged =
      "<x:xmpmeta xmlns:x='adobe:ns:meta/'><rdf:RDF "
      "xmlns:rdf='http://www.w3.org/1999/02/22-rdf-syntax-ns#'><rdf:Description "
      "xmlns:exif='http://ns.adobe.com/exif/1.0/' xmlns:photoshop='http://ns.adobe.com/photoshop/1.0/' "
      "exif:GPSLatitude='51,30.0N' exif:GPSLongitude='0,6.0W' photoshop:City='Fish & Chips'/>"
      "</rdf:RDF></x:xmpmeta>";
  PixelBuffer pixels;
  pixels.allocate(24, 16, 3, SampleFormat::uint8);
  std::fill(pixels.data.begin(), pixels.data.end(), uint8_t{128});
  OutputMetadata withDamage;
  withDamage.xmp = damaged;
  const std::vector<std::string> estimate{std::string(kClaimEstimateExport)};
  std::vector<std::filesystem::path> sources, outputs;
  for (const ExportFormat format : writableFormats()) {
    sources.push_back(dir / ("source." + std::string(fileExtension(format))));
    testing::writeBytes(sources.back(), encodeAs(format, pixels, withDamage));
    const SourceImage source = ResampleEngine::load(sources.back());
    ASSERT_EQ(source.xmpMetadata.value_or(""), damaged) << sources.back();
    const auto metadata = OutputMetadata::resolve(source, {}, estimate, 24, 16);
    EXPECT_EQ(metadata.dropped, std::vector<std::string>{"xmp"}) << sources.back();
    outputs.push_back(dir / ("out-" + sources.back().filename().string() + ".jpg"));
    testing::writeBytes(outputs.back(), encodeAs(ExportFormat::jpeg, pixels, metadata));
  }
  const auto tags = readBack(sources);
  EXPECT_TRUE(tags.at(sources[0].string()).contains("XMP-exif:GPSLatitude"))
      << "exiftool no longer reads the damaged packet; the test proves nothing";
  for (const auto& [file, t] : readBack(outputs)) {
    EXPECT_FALSE(t.contains("XMP-exif:GPSLatitude")) << file;
    EXPECT_FALSE(t.contains("XMP-photoshop:City")) << file;
    EXPECT_EQ(t.value("XMP-iptcExt:DigitalSourceType", ""), kDigitalSourceTypeComposite) << file;
  }
}

PixelBuffer gradient16(int width, int height, int channels) {
  PixelBuffer image;
  image.allocate(width, height, channels, SampleFormat::uint16);
  auto* p = reinterpret_cast<uint16_t*>(image.data.data());
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      for (int c = 0; c < channels; ++c)
        *p++ = static_cast<uint16_t>(c == 3 ? 65535 - x * 40 : (x * 64 + c * 5000 + y) % 65536);
  return image;
}

// More than 256 levels across a smooth ramp means more than 8 bits survived.
TEST(ExportPixels, SixteenBitFormatsKeepMoreThanEightBits) {
  const PixelBuffer image = gradient16(1024, 4, 4);
  for (const ExportFormat format : writableFormats()) {
    if (!supports16Bit(format)) continue;
    SCOPED_TRACE(std::string(title(format)));
    const PixelBuffer before = image;
    const auto bytes = encodeAs(format, image, {});
    // Writers must never scribble on the render they were given.
    ASSERT_EQ(image.data, before.data);
    const auto frame = codec::decodeFrame(std::as_bytes(std::span(bytes)));
    ASSERT_EQ(frame.pixels.format, SampleFormat::uint16);
    ASSERT_TRUE(frame.pixels.hasAlpha());
    EXPECT_GT(frame.nativeBits, 8);
    std::set<uint16_t> levels;
    const auto* row = reinterpret_cast<const uint16_t*>(frame.pixels.row(1));
    for (int x = 0; x < 1024; ++x) levels.insert(row[x * 4]);
    EXPECT_GT(levels.size(), 600u);
    if (format == ExportFormat::png || format == ExportFormat::tiff) {
      EXPECT_TRUE(std::equal(image.data.begin(), image.data.end(), frame.pixels.data.begin()));
    }
  }
}

std::vector<uint8_t> displayP3Profile() {
  const cmsCIExyY d65{0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE primaries{{0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};
  const cmsFloat64Number params[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
  cmsToneCurve* curve = cmsBuildParametricToneCurve(nullptr, 4, params);
  cmsToneCurve* curves[3] = {curve, curve, curve};
  cmsHPROFILE profile = cmsCreateRGBProfile(&d65, &primaries, curves);
  cmsFreeToneCurve(curve);
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(profile, nullptr, &size);
  std::vector<uint8_t> bytes(size);
  cmsSaveProfileToMem(profile, bytes.data(), &size);
  cmsCloseProfile(profile);
  return bytes;
}

// The largest difference, in 8-bit steps, between a kept-profile file
// converted to sRGB by lcms2 and the same render converted by us. Colours
// outside sRGB are clipped per channel by both routes.
double maxDifferenceInSRGB(const codec::DecodedFrame& kept, const codec::DecodedFrame& srgb) {
  const bool sixteen = kept.pixels.format == SampleFormat::uint16;
  cmsHPROFILE in = cmsOpenProfileFromMem(kept.iccProfile.data(), kept.iccProfile.size());
  cmsHPROFILE out = cmsCreate_sRGBProfile();
  cmsHTRANSFORM transform = cmsCreateTransform(in, sixteen ? TYPE_RGB_16 : TYPE_RGB_8, out,
                                               TYPE_RGB_DBL, INTENT_RELATIVE_COLORIMETRIC, 0);
  const size_t pixels = static_cast<size_t>(kept.pixels.width) * kept.pixels.height;
  std::vector<double> converted(pixels * 3);
  cmsDoTransform(transform, kept.pixels.data.data(), converted.data(), static_cast<cmsUInt32Number>(pixels));
  cmsDeleteTransform(transform);
  cmsCloseProfile(in);
  cmsCloseProfile(out);
  const auto* srgb16 = reinterpret_cast<const uint16_t*>(srgb.pixels.data.data());
  double worst = 0;
  for (size_t i = 0; i < pixels * 3; ++i) {
    const double ours = sixteen ? srgb16[i] / 257.0 : srgb.pixels.data[i];
    worst = std::max(worst, std::abs(std::clamp(converted[i], 0.0, 1.0) * 255 - ours));
  }
  return worst;
}

// A Display P3 photo kept in its profile must look like the same photo
// converted to sRGB. 16-bit files are compared over all hues, some outside
// sRGB, within one step. 8-bit WebP stores P3 in 8-bit steps: half a step
// of P3 rounding, spread by the P3-to-sRGB matrix (row sums up to 1.25),
// plus half a step of sRGB rounding bounds it near two steps.
TEST(ExportPixels, WideGamutKeptLooksLikeSRGBInLosslessFormats) {
  testing::TempDir dir;
  PixelBuffer p3;
  p3.allocate(32, 32, 3, SampleFormat::uint16);
  auto* px = reinterpret_cast<uint16_t*>(p3.data.data());
  for (int y = 0; y < 32; ++y)
    for (int x = 0; x < 32; ++x) {
      *px++ = static_cast<uint16_t>((90 + x * 3) * 257 + y);
      *px++ = static_cast<uint16_t>((90 + y * 3) * 257 + x);
      *px++ = static_cast<uint16_t>((190 - x * 2 - y) * 257);
    }
  OutputMetadata tagged;
  tagged.icc = displayP3Profile();
  testing::writeBytes(dir / "p3.png", encodePNG(p3, tagged));
  const ResampleEngine engine(ResampleEngine::load(dir / "p3.png"));
  ASSERT_FALSE(engine.source().colorSpace.iccProfile.empty());

  ColourPolicy keepPolicy, srgbPolicy;
  srgbPolicy.profile = ProfilePolicy::srgb;
  for (const ExportFormat format : {ExportFormat::png, ExportFormat::tiff, ExportFormat::webp}) {
    SCOPED_TRACE(std::string(title(format)));
    RenderOutput keep, toSRGB;
    keep.sixteenBit = toSRGB.sixteenBit = supports16Bit(format);
    toSRGB.keepProfile = false;
    const PixelBuffer keptImage = engine.exportImage({64, 64}, ResampleMethod::exact, keep);
    const PixelBuffer srgbImage = engine.exportImage({64, 64}, ResampleMethod::exact, toSRGB);
    const auto kept = encodeAs(format, keptImage,
                               OutputMetadata::resolve(engine.source(), keepPolicy, {}, 64, 64), true);
    const auto srgb = encodeAs(format, srgbImage,
                               OutputMetadata::resolve(engine.source(), srgbPolicy, {}, 64, 64), true);
    const auto keptFrame = codec::decodeFrame(std::as_bytes(std::span(kept)));
    const auto srgbFrame = codec::decodeFrame(std::as_bytes(std::span(srgb)));
    ASSERT_EQ(keptFrame.iccProfile, tagged.icc);
    EXPECT_LE(maxDifferenceInSRGB(keptFrame, srgbFrame), supports16Bit(format) ? 1.0 : 2.0);
  }
}

TEST(WebPEncoder, LimitsAndOptions) {
  EXPECT_NO_THROW(WebPEncoder::preflight(16383, 100));
  try {
    WebPEncoder::preflight(16384, 100);
    ADD_FAILURE();
  } catch (const EngineError& error) {
    EXPECT_EQ(error.errorCase(), EngineError::Case::webPDimensionExceeded);
  }
  EXPECT_EQ((WebPOptions{false, 30, 9}.normalized().effort), 6);
  EXPECT_EQ((WebPOptions{false, 130, -1}.normalized().effort), 0);
  EXPECT_EQ((WebPOptions{false, 130, -1}.normalized().lossyQuality), 100.0f);

  // A wide strip at the limit encodes; alpha survives a lossless trip.
  PixelBuffer strip;
  strip.allocate(16383, 2, 4, SampleFormat::uint8);
  for (size_t i = 0; i < strip.data.size(); ++i) strip.data[i] = static_cast<uint8_t>(i % 4 == 3 ? i % 251 : i % 97);
  const auto bytes = WebPEncoder::encode(strip, {}, {true, 30, 0});
  const auto frame = codec::decodeFrame(std::as_bytes(std::span(bytes)));
  ASSERT_EQ(frame.pixels.width, 16383);
  ASSERT_TRUE(frame.pixels.hasAlpha());
  EXPECT_TRUE(std::equal(strip.data.begin(), strip.data.end(), frame.pixels.data.begin()));
}

}  // namespace
}  // namespace tarnbloom::encoding

namespace tarnbloom::encoding {
namespace {

// CIE Lab of 8-bit pixels in the given profile (sRGB when empty).
std::vector<cmsCIELab> labOf(const codec::PixelBuffer& pixels, const std::vector<uint8_t>& icc) {
  cmsHPROFILE in = icc.empty() ? cmsCreate_sRGBProfile()
                               : cmsOpenProfileFromMem(icc.data(), static_cast<cmsUInt32Number>(icc.size()));
  cmsHPROFILE lab = cmsCreateLab4Profile(nullptr);
  cmsHTRANSFORM transform =
      cmsCreateTransform(in, TYPE_RGB_8, lab, TYPE_Lab_DBL, INTENT_RELATIVE_COLORIMETRIC, 0);
  const size_t count = static_cast<size_t>(pixels.width) * pixels.height;
  std::vector<cmsCIELab> out(count);
  cmsDoTransform(transform, pixels.data.data(), out.data(), static_cast<cmsUInt32Number>(count));
  cmsDeleteTransform(transform);
  cmsCloseProfile(lab);
  cmsCloseProfile(in);
  return out;
}

struct DeltaE {
  double mean = 0;
  double p99 = 0;
};

DeltaE deltaE2000(const std::vector<cmsCIELab>& a, const std::vector<cmsCIELab>& b) {
  std::vector<double> d(a.size());
  for (size_t i = 0; i < a.size(); ++i) d[i] = cmsCIE2000DeltaE(&a[i], &b[i], 1, 1, 1);
  DeltaE result;
  for (double v : d) result.mean += v / d.size();
  std::nth_element(d.begin(), d.begin() + d.size() * 99 / 100, d.end());
  result.p99 = d[d.size() * 99 / 100];
  return result;
}

// A wide-gamut photo kept in its profile through a lossy codec must land no
// further from the sRGB rendering of the same photo than the codec itself
// lands from an sRGB source at the same quality. rocket.jpg carries Adobe RGB.
TEST(ExportPixels, WideGamutKeptThroughLossyCodecsCostsNoMoreThanTheCodec) {
  const ResampleEngine engine(ResampleEngine::load(testing::samplePath("rocket.jpg")));
  ASSERT_EQ(engine.source().profileName(), "AdobeRGB1998");
  // The flames and sky in the middle of the frame: the most saturated part.
  const ResampleTarget size{engine.linear().width, engine.linear().height};
  const OutputRect middle{192, 96, 256, 192};
  const PixelBuffer keptImage = engine.previewTile(size, middle, ResampleMethod::exact, true);
  const PixelBuffer srgbImage = engine.previewTile(size, middle, ResampleMethod::exact, false);
  const auto reference = labOf(srgbImage, {});

  ColourPolicy keepPolicy, srgbPolicy;
  srgbPolicy.profile = ProfilePolicy::srgb;
  for (const ExportFormat format : {ExportFormat::jpeg, ExportFormat::webp, ExportFormat::heic, ExportFormat::avif}) {
    if (!isWritable(format)) continue;
    SCOPED_TRACE(std::string(title(format)));
    const int64_t w = middle.width, h = middle.height;
    const auto keptBytes = encodeAs(format, keptImage, OutputMetadata::resolve(engine.source(), keepPolicy, {}, w, h));
    const auto ownBytes = encodeAs(format, srgbImage, OutputMetadata::resolve(engine.source(), srgbPolicy, {}, w, h));
    const auto kept = codec::decodeFrame(std::as_bytes(std::span(keptBytes)));
    const auto own = codec::decodeFrame(std::as_bytes(std::span(ownBytes)));
    ASSERT_FALSE(kept.iccProfile.empty());
    const DeltaE keptError = deltaE2000(labOf(kept.pixels, kept.iccProfile), reference);
    const DeltaE codecError = deltaE2000(labOf(own.pixels, own.iccProfile), reference);
    std::printf("%-5s kept Adobe RGB: mean %.3f, p99 %.3f dE2000; sRGB source: mean %.3f, p99 %.3f\n",
                std::string(title(format)).c_str(), keptError.mean, keptError.p99, codecError.mean, codecError.p99);
    // Some slack: the kept file also carries 8-bit rounding in a wider space.
    EXPECT_LE(keptError.mean, codecError.mean * 1.15 + 0.05);
    EXPECT_LE(keptError.p99, codecError.p99 * 1.15 + 0.1);
  }
}

}  // namespace
}  // namespace tarnbloom::encoding
