#include "ocr/image_decoder.h"

#include <leptonica/allheaders.h>

#include <algorithm>
#include <cstdint>
#include <mutex>

namespace quorvi {

namespace {

uint32_t littleEndian16(std::string_view bytes, std::size_t at) {
  return static_cast<uint8_t>(bytes[at]) | (static_cast<uint32_t>(static_cast<uint8_t>(bytes[at + 1])) << 8);
}

int32_t littleEndian32(std::string_view bytes, std::size_t at) {
  uint32_t value = 0;
  for (int i = 3; i >= 0; --i) value = (value << 8) | static_cast<uint8_t>(bytes[at + i]);
  return static_cast<int32_t>(value);
}

// width * height without overflow: any side past 2^31 counts as too many.
int64_t pixelsOf(int64_t width, int64_t height) {
  if (width <= 0 || height <= 0) return 0;
  if (width > INT32_MAX || height > INT32_MAX) return INT64_MAX;
  return width * height;
}

// Skips GIF data sub-blocks (a length byte, that many bytes, ... a zero).
bool skipSubBlocks(std::string_view bytes, std::size_t& position) {
  while (position < bytes.size()) {
    std::size_t length = static_cast<uint8_t>(bytes[position++]);
    if (length == 0) return true;
    position += length;
  }
  return false;
}

uint32_t bigEndian32(std::string_view bytes, std::size_t at) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value = (value << 8) | static_cast<uint8_t>(bytes[at + i]);
  return value;
}

// The size from the IHDR chunk, which the format puts first; Leptonica's
// reader wants more bytes than a header, so a bare header would pass
// unchecked as "no image" instead of "too large".
bool readPngDimensions(std::string_view bytes, int64_t* width, int64_t* height) {
  if (bytes.size() < 24 || bytes.substr(0, 8) != "\x89PNG\r\n\x1a\n" || bytes.substr(12, 4) != "IHDR") return false;
  *width = bigEndian32(bytes, 16);
  *height = bigEndian32(bytes, 20);
  return true;
}

// Leptonica's own header reader decodes a whole BMP to learn its size; the
// size is in the fixed header.
bool readBmpDimensions(std::string_view bytes, int64_t* width, int64_t* height) {
  if (bytes.size() < 26 || bytes.substr(0, 2) != "BM") return false;
  *width = littleEndian32(bytes, 18);
  int64_t h = littleEndian32(bytes, 22);
  *height = h < 0 ? -h : h;  // a negative height means rows from the top
  return true;
}

// Leptonica prints every failure to standard error; bytes from clients fail
// often and that is answered, not logged.
void quietLeptonica() {
  static std::once_flag once;
  std::call_once(once, [] { setMsgSeverity(L_SEVERITY_NONE); });
}

PixPtr adopt(Pix* pix) { return PixPtr(pix); }

// 8-bit grey or 32-bit colour, without colour map and without alpha.
PixPtr plainForRecognition(PixPtr pix) {
  if (!pix) return pix;
  if (pixGetColormap(pix.get())) pix = adopt(pixRemoveColormap(pix.get(), REMOVE_CMAP_BASED_ON_SRC));
  if (!pix) return pix;
  int depth = pixGetDepth(pix.get());
  if (depth == 32 && pixGetSpp(pix.get()) == 4) {
    pix = adopt(pixAlphaBlendUniform(pix.get(), 0xffffff00));
  } else if (depth != 8 && depth != 32) {
    pix = adopt(pixConvertTo8(pix.get(), 0));
  }
  return pix;
}

bool withinLimits(int64_t width, int64_t height, int64_t decodedPixels, const ImageLimits& limits) {
  return width <= limits.maxSide && height <= limits.maxSide && width * height <= limits.maxPixels &&
         decodedPixels <= limits.maxPixels;
}

}  // namespace

void PixDeleter::operator()(Pix* pix) const { pixDestroy(&pix); }

bool readGifDimensions(std::string_view bytes, int64_t* screenWidth, int64_t* screenHeight, int64_t* framePixels) {
  if (bytes.size() < 13 || (bytes.substr(0, 6) != "GIF87a" && bytes.substr(0, 6) != "GIF89a")) return false;
  *screenWidth = littleEndian16(bytes, 6);
  *screenHeight = littleEndian16(bytes, 8);
  *framePixels = 0;
  std::size_t position = 13;
  uint8_t flags = static_cast<uint8_t>(bytes[10]);
  if (flags & 0x80) position += 3u << ((flags & 7) + 1);  // global colour table
  while (position < bytes.size()) {
    uint8_t block = static_cast<uint8_t>(bytes[position++]);
    if (block == 0x3B) return true;  // trailer
    if (block == 0x21) {             // extension: label, then sub-blocks
      ++position;
      if (!skipSubBlocks(bytes, position)) return true;
    } else if (block == 0x2C) {  // image descriptor
      if (position + 9 > bytes.size()) return true;
      int64_t width = littleEndian16(bytes, position + 4);
      int64_t height = littleEndian16(bytes, position + 6);
      uint8_t frameFlags = static_cast<uint8_t>(bytes[position + 8]);
      position += 9;
      if (frameFlags & 0x80) position += 3u << ((frameFlags & 7) + 1);  // local colour table
      *framePixels = std::min(*framePixels + width * height, INT64_MAX / 2);
      ++position;  // LZW minimum code size
      if (!skipSubBlocks(bytes, position)) return true;
    } else {
      return false;
    }
  }
  return true;  // cut off: the decoder will say whether it can read it
}

ImageHeader readImageHeader(std::string_view bytes, const ImageLimits& limits) {
  quietLeptonica();
  ImageHeader header;
  if (bytes.size() > limits.maxBytes) {
    header.failure = ImageFailure::tooLarge;
    return header;
  }
  // The format test reads the first 12 bytes.
  if (bytes.size() < 12) {
    header.failure = ImageFailure::notAnImage;
    return header;
  }
  const auto* data = reinterpret_cast<const l_uint8*>(bytes.data());
  l_int32 format = IFF_UNKNOWN;
  if (findFileFormatBuffer(data, &format) != 0 || format == IFF_UNKNOWN) {
    header.failure = ImageFailure::notAnImage;
    return header;
  }
  bool read = false;
  if (format == IFF_GIF) {
    int64_t framePixels = 0;
    read = readGifDimensions(bytes, &header.width, &header.height, &framePixels);
    header.decodedPixels = std::max(pixelsOf(header.width, header.height), framePixels);
  } else if (format == IFF_PNG) {
    read = readPngDimensions(bytes, &header.width, &header.height);
    header.decodedPixels = pixelsOf(header.width, header.height);
  } else if (format == IFF_BMP) {
    read = readBmpDimensions(bytes, &header.width, &header.height);
    header.decodedPixels = pixelsOf(header.width, header.height);
  } else {
    l_int32 width = 0, height = 0, bitsPerSample = 0, samplesPerPixel = 0, isColormapped = 0;
    read = pixReadHeaderMem(data, bytes.size(), &format, &width, &height, &bitsPerSample, &samplesPerPixel,
                            &isColormapped) == 0;
    header.width = width;
    header.height = height;
    header.decodedPixels = pixelsOf(width, height);
  }
  if (!read || header.width <= 0 || header.height <= 0) {
    header.failure = ImageFailure::notAnImage;
  } else if (!withinLimits(header.width, header.height, header.decodedPixels, limits)) {
    header.failure = ImageFailure::tooLarge;
  }
  return header;
}

DecodedImage decodeImage(std::string_view bytes, const ImageLimits& limits) {
  DecodedImage image;
  ImageHeader header = readImageHeader(bytes, limits);
  if (header.failure != ImageFailure::none) {
    image.failure = header.failure;
    return image;
  }
  PixPtr pix = adopt(pixReadMem(reinterpret_cast<const l_uint8*>(bytes.data()), bytes.size()));
  if (!pix) {
    image.failure = ImageFailure::notAnImage;
    return image;
  }
  // The decoder is the last word on the size, whatever the header said.
  int64_t width = pixGetWidth(pix.get()), height = pixGetHeight(pix.get());
  if (!withinLimits(width, height, width * height, limits)) {
    image.failure = ImageFailure::tooLarge;
    return image;
  }
  image.pix = plainForRecognition(std::move(pix));
  if (!image.pix) image.failure = ImageFailure::notAnImage;
  return image;
}

}  // namespace quorvi
