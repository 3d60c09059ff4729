// ContactsSearchableIndexer: answers the launcher's contact search. It keeps
// the entries of the user's address books in memory once loaded (`items`,
// absent until then), watches the address books through the file-events
// service, and drops the entries whenever one of them changes.
//
// Where work runs:
//  - a search with entries in memory runs on the calling thread (a request
//    worker): a byte-substring pass over ten thousand entries takes about a
//    millisecond;
//  - a search while the entries are absent is queued on the serial loading
//    queue ("com.quorvi.contacts.load", background quality of service). The
//    first queued search loads, the others find the entries loaded, and each
//    answers from them. No request thread waits for the load;
//  - file events arrive on "com.quorvi.contacts.events" and only drop the
//    entries, so the next search loads again.
// A change that lands while a load runs keeps that load's entries from being
// kept (they may be stale); the searches queued behind it are still answered
// from it, since it started after they were asked.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/dispatch.h"
#include "common/json.h"
#include "contacts/address_book_loader.h"
#include "contacts/contact_item.h"
#include "fsevents/file_events.h"

namespace quorvi {

class ContactsSearchableIndexer : public std::enable_shared_from_this<ContactsSearchableIndexer> {
 public:
  using Item = ContactItem;
  using Items = std::vector<Item>;
  // Called once, with the JSON array of matching entries or nil.
  using Completion = std::function<void(OptionalBytes)>;

  struct Options {
    // Where the address books are; asked again at every load (the settings
    // may have changed). Empty: AddressBookSources::standard().
    std::function<AddressBookSources()> sources;
    AddressBookLimits limits;
    std::string workingDirectory;      // for copies of databases; empty: the default
    FileEvents* fileEvents = nullptr;  // nullptr: FileEvents::shared()
    std::string watcherIdentifier = "com.quorvi.contacts";
    // A change of this file (the settings, which list the folders) drops the
    // entries too. Empty: not watched.
    std::string settingsPath;
  };

  // The process-wide indexer, created on the first contact search.
  static ContactsSearchableIndexer& shared();
  static std::shared_ptr<ContactsSearchableIndexer> make(Options options);
  ~ContactsSearchableIndexer();
  ContactsSearchableIndexer(const ContactsSearchableIndexer&) = delete;
  ContactsSearchableIndexer& operator=(const ContactsSearchableIndexer&) = delete;

  // The keyword search of the query over the entries' match texts, at most
  // maxcount hits (tested after each entry examined, so 0 still lets the
  // first entry through). Nil when there is no entry, no hit, or maxcount is
  // negative.
  void search(std::string query, int64_t maxcount, Completion completion);
  // The search itself, over given entries.
  static OptionalBytes searchItems(const Items& items, std::string_view query, int64_t maxcount);

  // The entries in memory; nullptr while absent.
  std::shared_ptr<const Items> items() const;
  // What a change in a watched address book does: the entries become absent.
  void dropItems();
  // How many loads have finished (tests, the performance snapshot).
  uint64_t loadCount() const;

 private:
  explicit ContactsSearchableIndexer(Options options);
  // On the loading queue: the entries in memory, or freshly loaded ones.
  std::shared_ptr<const Items> loadIfAbsent();
  void watch(const AddressBookSources& sources);
  void handle(const std::vector<FileEvent>& events);

  Options options_;
  FileEvents& fileEvents_;
  std::shared_ptr<DispatchQueue> loadQueue_;
  std::shared_ptr<DispatchQueue> eventQueue_;
  std::vector<std::string> watchedPaths_;  // on the loading queue only

  mutable std::mutex mutex_;  // guards the three below
  std::shared_ptr<const Items> items_;
  uint64_t changeCount_ = 0;
  uint64_t loadCount_ = 0;
};

}  // namespace quorvi
