// Image bytes from a client into a Leptonica image that Tesseract can read.
//
// The bytes may be anything: PNG, JPEG, TIFF, BMP, PNM, WebP, GIF, JPEG 2000
// (whatever Leptonica reads), or not an image at all. Before anything is
// decoded the dimensions are read from the header and held against the
// limits, so a small file that declares a huge picture (a decompression
// bomb) is refused without allocating it. GIF gets a header walk of its own:
// its decoder reads every frame at the size each frame declares, which the
// image's own header does not bound. PNG and BMP sizes are read here too
// (Leptonica wants more of a PNG than its header, and decodes a whole BMP to
// learn its size). BMP with bit fields (ImageMagick's default) is one kind
// Leptonica does not read.
//
// The decoded image is made plain for recognition: a colour map is
// expanded and transparency is laid over white (a transparent screenshot
// would otherwise read as black).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

struct Pix;

namespace quorvi {

struct PixDeleter {
  void operator()(Pix* pix) const;
};
using PixPtr = std::unique_ptr<Pix, PixDeleter>;

struct ImageLimits {
  std::size_t maxBytes = 64u << 20;
  int64_t maxPixels = 40'000'000;  // an 8K screen is 33 million
  int64_t maxSide = 30000;         // Tesseract keeps coordinates in 16 bits
};

enum class ImageFailure {
  none,
  notAnImage,  // unknown format, or bytes that do not decode
  tooLarge,    // more bytes, pixels or a longer side than the limits allow
};

struct ImageHeader {
  ImageFailure failure = ImageFailure::none;
  int64_t width = 0;
  int64_t height = 0;
  int64_t decodedPixels = 0;  // what decoding allocates (all frames of a GIF)
};

// The dimensions the bytes declare, held against the limits; decodes nothing.
ImageHeader readImageHeader(std::string_view bytes, const ImageLimits& limits = {});

struct DecodedImage {
  ImageFailure failure = ImageFailure::none;
  PixPtr pix;  // 8 or 32 bits per pixel, no colour map, no alpha; null on failure
};

DecodedImage decodeImage(std::string_view bytes, const ImageLimits& limits = {});

// GIF only: the sizes of the logical screen and of every frame, walked
// through the block structure. False when the bytes are no well-formed GIF.
bool readGifDimensions(std::string_view bytes, int64_t* screenWidth, int64_t* screenHeight, int64_t* framePixels);

}  // namespace quorvi
