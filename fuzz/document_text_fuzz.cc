// Documents on disk may be broken or hostile: text extraction of each kind
// on any bytes (the first byte picks the kind), within small limits.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "contentindex/text_extractor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static constexpr quorvi::DocumentKind kinds[] = {
      quorvi::DocumentKind::plainText, quorvi::DocumentKind::html, quorvi::DocumentKind::pdf,
      quorvi::DocumentKind::openDocument, quorvi::DocumentKind::officeOpenXML};
  const auto kind = kinds[data[0] % 5];
  quorvi::ExtractionLimits limits;
  limits.textFileBytes = 1 << 20;
  limits.documentFileBytes = 1 << 20;
  limits.unpackedBytes = 1 << 20;
  limits.textBytes = 64 << 10;
  limits.pages = 20;
  quorvi::textOfBytes(std::string_view(reinterpret_cast<const char*>(data) + 1, size - 1), kind, limits);
  return 0;
}
