// Files as phones and editors write them: colour profiles, EXIF orientation, alpha in every
// format, 16-bit depth, and the inputs that cannot be read. The metadata is spliced into
// files OpenCV wrote, so that what is tested is the reading of the file's own structure.

#include <gtest/gtest.h>
#include <lcms2.h>
#include <zlib.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "imaging/image.hpp"
#include "imaging/internal/container.hpp"
#include "imaging/tagged_files.hpp"
#include "platform/paths.hpp"
#include "platform/system_log.hpp"

namespace {

using imaging::Image;
using namespace imaging_test;

Bytes encode(const std::string& ext, const cv::Mat& pixels, std::vector<int> params = {}) {
  Bytes out;
  EXPECT_TRUE(cv::imencode(ext, pixels, out, params)) << ext;
  return out;
}

// LittleCMS's own rendering of BGR or 8-bit grey `pixels` from `profile` into sRGB, the oracle.
cv::Mat renderedBy(const Bytes& profile, const cv::Mat& pixels) {
  cmsHPROFILE from =
      cmsOpenProfileFromMem(profile.data(), static_cast<cmsUInt32Number>(profile.size()));
  cmsHPROFILE to = cmsCreate_sRGBProfile();
  const auto bgr = pixels.depth() == CV_16U ? TYPE_BGR_16 : TYPE_BGR_8;
  cmsHTRANSFORM t = cmsCreateTransform(from, pixels.channels() == 1 ? TYPE_GRAY_8 : bgr, to, bgr,
                                       INTENT_RELATIVE_COLORIMETRIC, 0);
  cv::Mat out(pixels.size(), CV_MAKETYPE(pixels.depth(), 3));
  for (int y = 0; y < pixels.rows; ++y)
    cmsDoTransform(t, pixels.ptr(y), out.ptr(y), static_cast<cmsUInt32Number>(pixels.cols));
  cmsDeleteTransform(t);
  cmsCloseProfile(from);
  cmsCloseProfile(to);
  return out;
}

// A TIFF structure holding an orientation: the body of every EXIF block.
Bytes exif(int orientation) {
  Bytes b = bytesOf(std::string("II*\0", 4));
  put32le(b, 8);
  put16le(b, 1);
  put16le(b, 274);
  put16le(b, 3);
  put32le(b, 1);
  put32le(b, static_cast<std::uint32_t>(orientation));
  put32le(b, 0);
  return b;
}

Bytes withPngChunk(const Bytes& png, const std::string& type, const Bytes& data) {
  Bytes chunk;
  put32be(chunk, static_cast<std::uint32_t>(data.size()));
  const Bytes body = bytesOf(type) + data;
  chunk = chunk + body;
  put32be(chunk, static_cast<std::uint32_t>(crc32(0, body.data(), static_cast<uInt>(body.size()))));
  Bytes out(png.begin(), png.begin() + 33);  // signature and IHDR
  return out + chunk + Bytes(png.begin() + 33, png.end());
}

Bytes iccpChunk(const Bytes& profile) {
  uLongf size = compressBound(static_cast<uLong>(profile.size()));
  Bytes packed(size);
  compress(packed.data(), &size, profile.data(), static_cast<uLong>(profile.size()));
  packed.resize(size);
  return bytesOf(std::string("P3\0\0", 4)) + packed;
}

Bytes pngWithProfile(const cv::Mat& pixels, const Bytes& profile) {
  return withPngChunk(encode(".png", pixels), "iCCP", iccpChunk(profile));
}

// The extended WebP layout: VP8X, then the given chunks, then OpenCV's image chunk.
Bytes withWebpChunks(const Bytes& webp, const std::vector<std::pair<std::string, Bytes>>& chunks,
                     int width, int height, bool alpha) {
  const auto chunk = [](const std::string& type, const Bytes& data) {
    Bytes c = bytesOf(type);
    put32le(c, static_cast<std::uint32_t>(data.size()));
    c = c + data;
    if (data.size() % 2) c.push_back(0);
    return c;
  };
  Bytes vp8x{static_cast<unsigned char>(0x20 | 0x08 | (alpha ? 0x10 : 0)), 0, 0, 0};  // ICC, EXIF
  for (int v : {width - 1, height - 1})
    for (int shift = 0; shift < 24; shift += 8)
      vp8x.push_back(static_cast<unsigned char>(v >> shift));
  Bytes body = bytesOf("WEBP") + chunk("VP8X", vp8x);
  for (const auto& [type, data] : chunks) body = body + chunk(type, data);
  body = body + Bytes(webp.begin() + 12, webp.end());
  Bytes out = bytesOf("RIFF");
  put32le(out, static_cast<std::uint32_t>(body.size()));
  return out + body;
}

// A little-endian TIFF with tags added: its first directory copied to the end with them.
Bytes withTiffTags(Bytes tiff, std::vector<std::tuple<int, int, std::uint32_t, Bytes>> tags) {
  EXPECT_EQ(tiff[0], 'I');
  const auto u16 = [&](std::size_t at) { return tiff[at] | (tiff[at + 1] << 8); };
  const auto u32 = [&](std::size_t at) {
    return static_cast<std::uint32_t>(u16(at) | (u16(at + 2) << 16));
  };
  const std::size_t ifd = u32(4);
  std::map<int, Bytes> entries;
  for (int i = 0; i < u16(ifd); ++i) {
    const auto at = ifd + 2 + static_cast<std::size_t>(i) * 12;
    entries[u16(at)] = Bytes(tiff.begin() + static_cast<std::ptrdiff_t>(at),
                             tiff.begin() + static_cast<std::ptrdiff_t>(at + 12));
  }
  for (auto& [tag, type, count, data] : tags) {
    Bytes entry;
    put16le(entry, static_cast<std::uint32_t>(tag));
    put16le(entry, static_cast<std::uint32_t>(type));
    put32le(entry, count);
    if (data.size() <= 4) {
      data.resize(4);
      entry = entry + data;
    } else {
      put32le(entry, static_cast<std::uint32_t>(tiff.size()));
      tiff = tiff + data;
      if (tiff.size() % 2) tiff.push_back(0);
    }
    entries[tag] = entry;
  }
  const auto newIfd = static_cast<std::uint32_t>(tiff.size());
  put16le(tiff, static_cast<std::uint32_t>(entries.size()));
  for (const auto& [tag, entry] : entries) tiff = tiff + entry;
  put32le(tiff, 0);
  for (int i = 0; i < 4; ++i) tiff[4 + i] = static_cast<unsigned char>(newIfd >> (8 * i));
  return tiff;
}

Bytes shortValue(int v) {
  Bytes b;
  put16le(b, static_cast<std::uint32_t>(v));
  return b;
}

// A TIFF whose ExtraSamples says its alpha is associated (1) or unassociated (2).
Bytes tiffWithAlpha(const cv::Mat& pixels, int kind) {
  return withTiffTags(encode(".tiff", pixels), {{338, 3, 1, shortValue(kind)}});
}

Image decoded(const Bytes& bytes) {
  auto image = Image::decode(bytes);
  EXPECT_TRUE(image);
  return image.value_or(Image());
}

cv::Vec3f colourAt(const Image& image, int y, int x) {
  const auto t = image.toMLMultiArray(false);
  return {t->at(0, 0, y, x), t->at(0, 1, y, x), t->at(0, 2, y, x)};
}

TEST(ColourProfiles, DisplayP3BecomesWhatLittleCmsRendersInSrgb) {
  const Bytes p3 = displayP3();
  // Stored as P3 values: an orange as a phone writes it, a saturated green past sRGB's
  // gamut, neutral grey, white.
  cv::Mat stored(2, 2, CV_8UC3);
  stored.at<cv::Vec3b>(0, 0) = {40, 60, 200};
  stored.at<cv::Vec3b>(0, 1) = {30, 230, 20};
  stored.at<cv::Vec3b>(1, 0) = {128, 128, 128};
  stored.at<cv::Vec3b>(1, 1) = {255, 255, 255};
  const cv::Mat expected = renderedBy(p3, stored);
  ASSERT_NE(expected.at<cv::Vec3b>(0, 0), stored.at<cv::Vec3b>(0, 0));

  const Bytes webp = encode(".webp", stored, {cv::IMWRITE_WEBP_QUALITY, 101});  // lossless
  const Bytes tiff = encode(".tiff", stored);
  const std::vector<std::pair<std::string, Bytes>> tagged{
      {"PNG", pngWithProfile(stored, p3)},
      {"WebP", withWebpChunks(webp, {{"ICCP", p3}}, 2, 2, false)},
      {"TIFF", withTiffTags(tiff, {{34675, 7, static_cast<std::uint32_t>(p3.size()), p3}})}};
  // 8-bit matrix-shaper profiles are converted by tables built from LittleCMS's reading of
  // the profile, which round a little differently from its own transform.
  for (const auto& [format, bytes] : tagged) {
    const Image image = decoded(bytes);
    ASSERT_EQ(image.pixels().type(), CV_8UC3) << format;
    EXPECT_LE(cv::norm(image.pixels(), expected, cv::NORM_INF), 1) << format;
  }
  // Alpha rides along untouched.
  cv::Mat translucent;
  cv::cvtColor(stored, translucent, cv::COLOR_BGR2BGRA);
  translucent.at<cv::Vec4b>(0, 0)[3] = 77;
  const Image withAlpha = decoded(pngWithProfile(translucent, p3));
  cv::Mat colour;
  cv::cvtColor(withAlpha.pixels(), colour, cv::COLOR_BGRA2BGR);
  EXPECT_LE(cv::norm(colour, expected, cv::NORM_INF), 1);
  EXPECT_EQ(withAlpha.pixels().at<cv::Vec4b>(0, 0)[3], 77);
  EXPECT_EQ(withAlpha.pixels().at<cv::Vec4b>(1, 1)[3], 255);

  // A phone's orange: green 0.1633 in sRGB, not the stored 0.2353; monochrome 0.1652.
  const Image orange = decoded(tagged[0].second);
  EXPECT_NEAR(colourAt(orange, 0, 0)[1], 0.1633, 0.002);
  EXPECT_NEAR(orange.toMLMultiArray(true)->at(0, 0, 0, 0), 0.1652, 0.002);

  // JPEG is lossy: compared with LittleCMS on the pixels the same file gives untagged.
  const Bytes jpeg = encode(".jpg", stored, {cv::IMWRITE_JPEG_QUALITY, 100});
  const Image plain = decoded(jpeg);
  const Image managed = decoded(withJpegProfile(jpeg, p3));
  EXPECT_LE(cv::norm(managed.pixels(), renderedBy(p3, plain.pixels()), cv::NORM_INF), 1);

  // A grey image with a grey profile (gamma 1.8) goes through LittleCMS's transform.
  cmsToneCurve* gamma = cmsBuildGamma(nullptr, 1.8);
  const Bytes greyBytes = savedAndClosed(cmsCreateGrayProfile(cmsD50_xyY(), gamma));
  cmsFreeToneCurve(gamma);
  const cv::Mat greyStored(1, 1, CV_8UC1, cv::Scalar(100));
  const auto greyExpected = renderedBy(greyBytes, greyStored).at<cv::Vec3b>(0, 0);
  EXPECT_EQ(decoded(pngWithProfile(greyStored, greyBytes)).pixels().at<cv::Vec3b>(0, 0),
            greyExpected);
  EXPECT_NE(greyExpected, cv::Vec3b(100, 100, 100));

  // 16 bits stay 16 bits through the transform.
  cv::Mat deep;
  stored.convertTo(deep, CV_16U, 257);
  deep.at<cv::Vec3w>(1, 0) = {30001, 30001, 30001};
  const Image deepImage = decoded(pngWithProfile(deep, p3));
  ASSERT_EQ(deepImage.pixels().type(), CV_16UC3);
  EXPECT_EQ(cv::norm(deepImage.pixels(), renderedBy(p3, deep), cv::NORM_INF), 0);
}

TEST(ColourProfiles, SrgbAndUnreadableProfilesLeaveThePixels) {
  cv::Mat stored(1, 1, CV_8UC3, cv::Scalar(40, 60, 200));
  const Bytes png = encode(".png", stored);
  const Bytes srgbBytes = savedAndClosed(cmsCreate_sRGBProfile());

  platform::CapturedLog log;
  EXPECT_EQ(decoded(withPngChunk(png, "iCCP", iccpChunk(srgbBytes))).pixels().at<cv::Vec3b>(0, 0),
            cv::Vec3b(40, 60, 200));
  EXPECT_TRUE(log.messages().empty());

  // Garbage where a profile should be: taken as sRGB, said once however often it comes.
  const Bytes broken = withPngChunk(png, "iCCP", iccpChunk(bytesOf("not an ICC profile at all")));
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(decoded(broken).pixels().at<cv::Vec3b>(0, 0), cv::Vec3b(40, 60, 200));
  EXPECT_EQ(log.messages("Image").size(), 1u);
  // A profile whose compressed data is damaged cannot even be taken out of the file.
  Bytes damaged = bytesOf(std::string("P3\0\0", 4)) + bytesOf("no zlib here");
  EXPECT_EQ(decoded(withPngChunk(png, "iCCP", damaged)).pixels().at<cv::Vec3b>(0, 0),
            cv::Vec3b(40, 60, 200));
  ASSERT_EQ(log.messages("Image").size(), 2u);
  EXPECT_NE(log.messages("Image")[1].find("damaged"), std::string::npos);
}

// Where stored pixel (r, c) of a W x H image shows, from EXIF's words for each value: which
// side stored row 0 is on, and which side stored column 0.
cv::Point shownAt(int o, int r, int c, int width, int height) {
  const int col = (o == 2 || o == 3 || o == 7 || o == 8) ? width - 1 - c : c;
  const int row = (o == 3 || o == 4 || o == 6 || o == 7) ? height - 1 - r : r;
  return o >= 5 ? cv::Point{row, col} : cv::Point{col, row};  // 5 to 8 turn the picture
}

TEST(Orientation, AllEightValuesShowThePictureAsThePersonSeesIt) {
  // 3 x 2 cells of 16 pixels, each its own colour, so that JPEG keeps them apart.
  const cv::Vec3b colours[2][3] = {{{0, 0, 255}, {0, 255, 0}, {255, 0, 0}},
                                   {{0, 255, 255}, {255, 0, 255}, {255, 255, 0}}};
  cv::Mat stored(32, 48, CV_8UC3);
  for (int r = 0; r < 2; ++r)
    for (int c = 0; c < 3; ++c) stored(cv::Rect(c * 16, r * 16, 16, 16)).setTo(colours[r][c]);
  const Bytes jpeg = encode(".jpg", stored, {cv::IMWRITE_JPEG_QUALITY, 100});
  for (int orientation = 1; orientation <= 8; ++orientation) {
    const Bytes app1 = bytesOf(std::string("Exif\0\0", 6)) + exif(orientation);
    const Image image = decoded(withJpegSegment(jpeg, 0xE1, app1));
    const bool turned = orientation >= 5;
    ASSERT_EQ(image.extent().width, turned ? 32 : 48) << orientation;
    ASSERT_EQ(image.extent().height, turned ? 48 : 32) << orientation;
    for (int r = 0; r < 2; ++r)
      for (int c = 0; c < 3; ++c) {
        const cv::Point cell = shownAt(orientation, r, c, 3, 2);
        const auto seen = image.pixels().at<cv::Vec3b>(cell.y * 16 + 8, cell.x * 16 + 8);
        EXPECT_LE(cv::norm(cv::Vec3i(seen) - cv::Vec3i(colours[r][c]), cv::NORM_INF), 8)
            << "orientation " << orientation << " cell " << r << "," << c;
      }
  }

  // Every other format that carries it, alpha kept: a portrait stored landscape.
  cv::Mat rgba(2, 4, CV_8UC4, cv::Scalar(0, 0, 255, 255));
  rgba.at<cv::Vec4b>(0, 0) = {255, 0, 0, 100};  // stored top left, shown top right
  const std::vector<std::pair<std::string, Bytes>> files{
      {"PNG", withPngChunk(encode(".png", rgba), "eXIf", exif(6))},
      {"WebP", withWebpChunks(encode(".webp", rgba, {cv::IMWRITE_WEBP_QUALITY, 101}),
                              {{"EXIF", exif(6)}}, 4, 2, true)},
      {"TIFF", withTiffTags(encode(".tiff", rgba), {{274, 3, 1, shortValue(6)}})}};
  for (const auto& [format, bytes] : files) {
    const Image image = decoded(bytes);
    ASSERT_EQ(image.extent().width, 2) << format;
    ASSERT_EQ(image.extent().height, 4) << format;
    EXPECT_EQ(image.pixels().at<cv::Vec4b>(0, 1), cv::Vec4b(255, 0, 0, 100)) << format;
    EXPECT_EQ(image.pixels().at<cv::Vec4b>(3, 0), cv::Vec4b(0, 0, 255, 255)) << format;
  }
}

TEST(Alpha, PngTiffAndWebpGiveOneTensor) {
  cv::Mat rgba(1, 3, CV_8UC4);
  rgba.at<cv::Vec4b>(0, 0) = {255, 255, 255, 128};
  rgba.at<cv::Vec4b>(0, 1) = {40, 60, 200, 64};
  rgba.at<cv::Vec4b>(0, 2) = {10, 20, 30, 0};
  cv::Mat premultiplied;
  cv::cvtColor(rgba, premultiplied, cv::COLOR_RGBA2mRGBA);
  const Image png = decoded(encode(".png", rgba));
  EXPECT_TRUE(png.hasAlpha());
  const auto expected = png.toMLMultiArray(false);
  const auto expectedMono = png.toMLMultiArray(true);
  EXPECT_NEAR(expected->at(0, 0, 0, 0), 128 / 255.0, 1e-6);  // white over black, once
  EXPECT_NEAR(expected->at(0, 0, 0, 1), 200 * 64 / 65025.0, 1e-6);
  EXPECT_NEAR(expectedMono->at(0, 0, 0, 0), 0.2159, 1e-4);
  const std::vector<std::pair<std::string, Bytes>> files{
      {"WebP", encode(".webp", rgba, {cv::IMWRITE_WEBP_QUALITY, 101})},
      {"TIFF, alpha unspecified", encode(".tiff", rgba)},
      // libtiff premultiplies this one on reading.
      {"TIFF, unassociated alpha", tiffWithAlpha(rgba, 2)},
      {"TIFF, associated alpha", tiffWithAlpha(premultiplied, 1)}};
  for (const auto& [format, bytes] : files) {
    const Image image = decoded(bytes);
    EXPECT_EQ(image.pixels().at<cv::Vec4b>(0, 0), cv::Vec4b(255, 255, 255, 128)) << format;
    const auto colour = image.toMLMultiArray(false);
    const auto mono = image.toMLMultiArray(true);
    // Premultiplying to 8 bits and back loses up to a level where alpha is low.
    for (const auto& [got, want] : {std::pair{colour, expected}, std::pair{mono, expectedMono}})
      for (std::size_t i = 0; i < got->values().size(); ++i)
        EXPECT_NEAR(got->values()[i], want->values()[i], 0.5 / 255) << format << " " << i;
  }
  // 16-bit TIFFs come as stored: associated alpha is divided back, unassociated left.
  cv::Mat deep(1, 1, CV_16UC4, cv::Scalar(32768, 32768, 32768, 32768));
  EXPECT_EQ(decoded(tiffWithAlpha(deep, 1)).pixels().at<cv::Vec4w>(0, 0),
            cv::Vec4w(65535, 65535, 65535, 32768));
  EXPECT_EQ(decoded(tiffWithAlpha(deep, 2)).pixels().at<cv::Vec4w>(0, 0),
            cv::Vec4w(32768, 32768, 32768, 32768));
}

TEST(Depth, SixteenBitAndFloatSourcesKeepTheirSteps) {
  cv::Mat ramp(2, 256, CV_16UC1);
  for (int x = 0; x < 256; ++x) ramp.col(x).setTo(30000 + x);
  for (const std::string ext : {".png", ".tiff"}) {
    const Image image = decoded(encode(ext, ramp));
    ASSERT_EQ(image.pixels().depth(), CV_16U) << ext;
    const auto colour = image.toMLMultiArray(false);
    const auto mono = image.toMLMultiArray(true);
    for (int x = 0; x < 256; ++x) {
      EXPECT_FLOAT_EQ(colour->at(0, 0, 1, x), static_cast<float>((30000 + x) / 65535.0)) << ext;
      if (x > 0) {
        EXPECT_GT(mono->at(0, 0, 1, x), mono->at(0, 0, 1, x - 1)) << ext << " " << x;
      }
    }
    EXPECT_NEAR(mono->at(0, 0, 0, 0), std::pow((30000 / 65535.0 + 0.055) / 1.055, 2.4), 1e-6);
    // Resizing keeps the depth too.
    EXPECT_EQ(image.resizedToWidth(128).pixels().depth(), CV_16U);
  }
  // OpenCV stores float TIFFs as LogLuv, so the value to keep is the one its reader gives.
  const Bytes floats = encode(".tiff", cv::Mat(1, 2, CV_32FC3, cv::Scalar(0.123456f, 0.5f, 0.75f)));
  const Image image = decoded(floats);
  ASSERT_EQ(image.pixels().depth(), CV_32F);
  EXPECT_EQ(colourAt(image, 0, 1)[2],
            cv::imdecode(floats, cv::IMREAD_UNCHANGED).at<cv::Vec3f>(0, 1)[0]);
}

class BadInputs : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = platform::temporaryDirectory() / ("imaging-bad-" + platform::newUUID());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::filesystem::path file(const std::string& name, const Bytes& bytes) {
    std::ofstream(dir_ / name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    return dir_ / name;
  }

  std::filesystem::path dir_;
};

TEST_F(BadInputs, EachGivesNoneAndOneLogLine) {
  cv::Mat picture(300, 300, CV_8UC3);
  cv::randu(picture, 0, 255);
  const Bytes png = encode(".png", picture);
  const Bytes jpeg = encode(".jpg", picture);
  const imaging::DecodeLimits small{.maxBytes = 1000}, few{.maxPixels = 300 * 299};

  struct Case {
    std::string what;
    std::function<std::optional<Image>()> load;
    std::string said;
  };
  const std::vector<Case> cases{
      {"a directory", [&] { return Image::load(dir_); }, "directory"},
      {"a device", [&] { return Image::load("/dev/zero"); }, "not a regular file"},
      {"a missing file", [&] { return Image::load(dir_ / "missing.png"); }, "No such file"},
      {"a file past the byte limit", [&] { return Image::load(file("big.png", png), small); },
       "past the limit"},
      {"bytes past the limit", [&] { return Image::decode(png, small); }, "past the limit"},
      {"a picture past the pixel limit", [&] { return Image::load(file("wide.png", png), few); },
       "300 x 300 pixels"},
      {"a truncated PNG",
       [&] { return Image::decode(Bytes(png.begin(), png.begin() + png.size() / 2)); },
       "ends early"},
      {"text", [&] { return Image::load(file("notes.png", bytesOf("not a picture"))); },
       "not an image"},
      {"nothing", [&] { return Image::decode(Bytes{}); }, "no bytes"},
  };
  for (const auto& c : cases) {
    platform::CapturedLog log;
    std::optional<Image> image;
    EXPECT_NO_THROW(image = c.load()) << c.what;
    EXPECT_FALSE(image) << c.what;
    const auto lines = log.messages("Image");
    ASSERT_EQ(lines.size(), 1u) << c.what;
    EXPECT_NE(lines[0].find(c.said), std::string::npos) << c.what << ": " << lines[0];
  }

  // Every cut of files carrying each kind of metadata is read without a step past its end
  // (the address sanitizer build watches), and a cut PNG or JPEG is known to be cut.
  const Bytes tagged[] = {
      withPngChunk(withPngChunk(encode(".png", picture(cv::Rect(0, 0, 8, 8))), "iCCP",
                                iccpChunk(displayP3())),
                   "eXIf", exif(6)),
      withJpegSegment(withJpegProfile(encode(".jpg", picture(cv::Rect(0, 0, 8, 8))), displayP3()),
                      0xE1, bytesOf(std::string("Exif\0\0", 6)) + exif(3)),
      withWebpChunks(encode(".webp", picture(cv::Rect(0, 0, 8, 8))),
                     {{"ICCP", displayP3()}, {"EXIF", exif(8)}}, 8, 8, false),
      withTiffTags(encode(".tiff", picture(cv::Rect(0, 0, 8, 8))),
                   {{274, 3, 1, shortValue(5)}, {34675, 7, 600, Bytes(600, 1)}})};
  for (const auto& file : tagged) {
    ASSERT_NE(imaging::internal::inspect(file).orientation, 1);
    for (std::size_t size = 0; size < file.size(); ++size) {
      const auto cut = imaging::internal::inspect(std::span(file.data(), size));
      using imaging::internal::Format;
      EXPECT_TRUE(cut.truncated || (cut.format != Format::png && cut.format != Format::jpeg))
          << size;
    }
  }

  // A JPEG cut short gives what is there, and says so.
  platform::CapturedLog log;
  const auto partial = Image::decode(Bytes(jpeg.begin(), jpeg.begin() + jpeg.size() / 2));
  ASSERT_TRUE(partial);
  EXPECT_EQ(partial->extent().width, 300);
  ASSERT_EQ(log.messages("Image").size(), 1u);
  EXPECT_NE(log.messages("Image")[0].find("partial"), std::string::npos);
}

}  // namespace
