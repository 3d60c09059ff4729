// Image bytes from clients: the header checks and, within small limits,
// decoding, on any bytes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "ocr/image_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  quorvi::ImageLimits limits;
  limits.maxPixels = 1 << 20;
  limits.maxSide = 4096;
  quorvi::readImageHeader(bytes, limits);
  int64_t width = 0, height = 0, frames = 0;
  quorvi::readGifDimensions(bytes, &width, &height, &frames);
  quorvi::decodeImage(bytes, limits);
  return 0;
}
