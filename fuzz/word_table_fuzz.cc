// The pinyin word table (PinyinWords.txt): read from the resources folder,
// where anything may have been put in its place.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pinyin/word_table.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  quorvi::parseWordTable(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
