// Contacts (#30), answered by the shared ContactsSearchableIndexer. Called
// on a request worker; when the address books are not in memory the search
// is queued behind their load and answers from there.
#include "contacts/contacts_searchable_indexer.h"
#include "service/service_provider.h"

namespace quorvi {

void ServiceProvider::searchContactsWithQuery(std::string query, int64_t maxcount, Reply reply) {
  ContactsSearchableIndexer::shared().search(std::move(query), maxcount,
                                             [reply](OptionalBytes data) { reply.sendData(std::move(data)); });
}

}  // namespace quorvi
