// Metadata query strings come from clients as they are typed: the parser and
// the planner's disjunctive form on any text.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "spotlight/metadata_query.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto query = quorvi::MetadataQuery::parse(text, 1700000000.0);
  if (query.ok()) query.disjunctiveForm();
  else query.error()->description();
  quorvi::escapedQueryText(text);
  return 0;
}
