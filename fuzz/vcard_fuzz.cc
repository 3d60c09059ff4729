// The vCard reader and the entries made from its cards, on any bytes: an
// address book on disk may hold anything.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "contacts/contact_item.h"
#include "contacts/vcard.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const auto& card : quorvi::parseVCards(text)) {
    for (const auto& item : quorvi::contactItemsOfCard(card, "fuzz")) {
      quorvi::encodeContactItems({&item});
    }
    for (const auto& property : card.properties) {
      quorvi::vcardComponents(property.value, ';');
      property.hasParameter("TYPE", "cell");
    }
  }
  return 0;
}
