// Image bytes from clients: real images decode, everything else is refused
// before it can allocate.
#include "ocr/image_decoder.h"

#include <gtest/gtest.h>
#include <leptonica/allheaders.h>

#include "ocr/test_images.h"

namespace quorvi {
namespace {

using namespace ocr_test;

TEST(ImageDecoder, RealImagesInEveryCommonFormat) {
  // ImageMagick's default BMP uses bit fields, which Leptonica does not read;
  // bmp3 is the plain kind.
  for (const char* format : {"png", "jpg", "gif", "bmp3", "tiff", "webp", "pgm"}) {
    Drawing drawing;
    drawing.width = 120, drawing.height = 40, drawing.format = format;
    drawing.lines = {{"Hi", 10, 30}};
    std::string bytes = draw(drawing);
    ImageHeader header = readImageHeader(bytes);
    EXPECT_EQ(header.failure, ImageFailure::none) << format;
    EXPECT_EQ(header.width, 120) << format;
    EXPECT_EQ(header.height, 40) << format;
    DecodedImage image = decodeImage(bytes);
    ASSERT_EQ(image.failure, ImageFailure::none) << format;
    ASSERT_TRUE(image.pix);
    EXPECT_EQ(pixGetWidth(image.pix.get()), 120);
    int depth = pixGetDepth(image.pix.get());
    EXPECT_TRUE(depth == 8 || depth == 32) << format << " gives depth " << depth;
    EXPECT_EQ(pixGetColormap(image.pix.get()), nullptr) << format;
  }
}

TEST(ImageDecoder, TransparencyBecomesWhite) {
  Drawing drawing;
  drawing.width = 60, drawing.height = 30, drawing.background = "black", drawing.fill = "white";
  drawing.transparentBackground = true;  // black and fully transparent
  DecodedImage image = decodeImage(draw(drawing));
  ASSERT_EQ(image.failure, ImageFailure::none);
  l_uint32 pixel = 0;
  pixGetPixel(image.pix.get(), 1, 1, &pixel);
  if (pixGetDepth(image.pix.get()) == 32) {
    l_int32 r, g, b;
    extractRGBValues(pixel, &r, &g, &b);
    EXPECT_GT(r + g + b, 700) << "a transparent corner reads as white, not black";
  } else {
    EXPECT_GT(pixel, 240u);
  }
}

TEST(ImageDecoder, GarbageAndTruncatedBytesAreNoImage) {
  EXPECT_EQ(decodeImage("").failure, ImageFailure::notAnImage);
  EXPECT_EQ(decodeImage("\x89PNG").failure, ImageFailure::notAnImage) << "shorter than any header";
  EXPECT_EQ(decodeImage(std::string(5000, 'x')).failure, ImageFailure::notAnImage);
  std::string random;
  for (int i = 0; i < 4096; ++i) random.push_back(static_cast<char>((i * 7919 + 13) % 251));
  EXPECT_EQ(decodeImage(random).failure, ImageFailure::notAnImage);

  Drawing drawing;
  std::string png = draw(drawing);
  ASSERT_GT(png.size(), 200u);
  EXPECT_EQ(decodeImage(png.substr(0, png.size() / 2)).failure, ImageFailure::notAnImage) << "cut in half";
  EXPECT_EQ(decodeImage(pngHeaderDeclaring(100, 100)).failure, ImageFailure::notAnImage) << "a header, no pixels";
}

TEST(ImageDecoder, DeclaredSizesBeyondTheLimitsAreRefusedUndecoded) {
  // Each of these would make the decoder allocate gigabytes.
  EXPECT_EQ(readImageHeader(pngHeaderDeclaring(100000, 100000)).failure, ImageFailure::tooLarge);
  EXPECT_EQ(readImageHeader(pngHeaderDeclaring(40000, 10)).failure, ImageFailure::tooLarge) << "a side too long";
  EXPECT_EQ(readImageHeader(gifWithFrameDeclaring(60000, 60000)).failure, ImageFailure::tooLarge)
      << "a small screen with a huge frame";
  EXPECT_EQ(readImageHeader(bmpHeaderDeclaring(50000, -50000)).failure, ImageFailure::tooLarge);
  EXPECT_EQ(readImageHeader(pngHeaderDeclaring(0xE4E4E4E4u, 0xE4E4E4E4u)).failure, ImageFailure::tooLarge)
      << "sides whose product overflows 64 bits (found by fuzzing)";

  ImageLimits limits;
  limits.maxPixels = 100;
  Drawing drawing;
  drawing.width = 20, drawing.height = 20;
  std::string png = draw(drawing);
  EXPECT_EQ(decodeImage(png, limits).failure, ImageFailure::tooLarge);
  limits = {};
  limits.maxBytes = png.size() - 1;
  EXPECT_EQ(decodeImage(png, limits).failure, ImageFailure::tooLarge);
  EXPECT_EQ(decodeImage(png).failure, ImageFailure::none);

  int64_t width = 0, height = 0, frames = 0;
  ASSERT_TRUE(readGifDimensions(gifWithFrameDeclaring(300, 200), &width, &height, &frames));
  EXPECT_EQ(width, 16);
  EXPECT_EQ(frames, 300 * 200);
  EXPECT_FALSE(readGifDimensions(std::string("GIF89a\x10\x00\x10\x00\x00\x00\x00\x99", 14), &width, &height, &frames))
      << "an unknown block";
}

}  // namespace
}  // namespace quorvi
