// The chunked searches: chunks of the list are searched in parallel on the
// matcher's concurrent queue; each chunk hands its records to a serial queue
// that belongs to the call, so the gathered list needs no lock; when every
// chunk is in, the list goes to the completion on the main queue.
#include <algorithm>

#include "common/dispatch.h"
#include "fuse/characters.h"
#include "fuse/fuse.h"

namespace quorvi {

namespace {

template <typename Element, typename Result, typename SearchOne>
void searchInChunks(const std::shared_ptr<DispatchQueue>& searchQueue, bool hasPattern,
                    std::shared_ptr<const std::vector<Element>> list, long chunkSize, SearchOne searchOne,
                    std::function<void(std::vector<Result>)> completion) {
  auto itemsQueue = DispatchQueue::makeSerial("fuse.items.queue");
  auto group = std::make_shared<DispatchGroup>();
  auto gathered = std::make_shared<std::vector<Result>>();
  const std::size_t count = hasPattern ? list->size() : 0;
  const std::size_t step = static_cast<std::size_t>(std::max(1L, chunkSize));
  for (std::size_t start = 0; start < count;) {
    const std::size_t end = count - start <= step ? count : start + step;
    group->enter();
    searchQueue->async([list, start, end, searchOne, itemsQueue, group, gathered] {
      std::vector<Result> found;
      for (std::size_t index = start; index < end; ++index) {
        // An element that fails to be searched (a record whose properties
        // throw, memory running out) is left out; the call still completes.
        try {
          if (std::optional<Result> result = searchOne((*list)[index], static_cast<long>(index)))
            found.push_back(std::move(*result));
        } catch (...) {
        }
      }
      itemsQueue->async([found = std::move(found), group, gathered]() mutable {
        gathered->insert(gathered->end(), std::make_move_iterator(found.begin()),
                         std::make_move_iterator(found.end()));
        group->leave();
      });
    });
    start = end;
  }
  // The queue pointer handed to notify stays valid: the work holds the queue.
  group->notify(*searchQueue, [searchQueue, gathered, completion = std::move(completion)]() mutable {
    std::sort(gathered->begin(), gathered->end(),
              [](const Result& a, const Result& b) { return a.index < b.index; });
    DispatchQueue::main().async([gathered, completion = std::move(completion)] {
      if (completion) completion(std::move(*gathered));
    });
  });
}

}  // namespace

void Fuse::search(std::string_view pattern, std::vector<std::string> texts, long chunkSize,
                  std::function<void(std::vector<FuseStringResult>)> completion) {
  search(pattern, std::make_shared<const std::vector<std::string>>(std::move(texts)), chunkSize,
         std::move(completion));
}

void Fuse::search(std::string_view pattern, std::vector<FuseableRef> items, long chunkSize,
                  std::function<void(std::vector<FuseItemResult>)> completion) {
  search(pattern, std::make_shared<const std::vector<FuseableRef>>(std::move(items)), chunkSize,
         std::move(completion));
}

void Fuse::search(std::string_view pattern, std::shared_ptr<const std::vector<std::string>> list, long chunkSize,
                  std::function<void(std::vector<FuseStringResult>)> completion) {
  if (!list) list = std::make_shared<const std::vector<std::string>>();
  // The chunks work on a copy of the settings, so that a matcher released
  // before its completion has run is never touched.
  std::shared_ptr<const Fuse> settings = copySettings();
  auto compiled = std::make_shared<const std::optional<FusePattern>>(createPattern(pattern));
  auto searchOne = [settings, compiled](const std::string& text, long index) -> std::optional<FuseStringResult> {
    return settings->searchListed(**compiled, text, index);
  };
  searchInChunks<std::string, FuseStringResult>(searchQueue(), compiled->has_value(), list, chunkSize, searchOne,
                                                std::move(completion));
}

void Fuse::search(std::string_view pattern, std::shared_ptr<const std::vector<FuseableRef>> list, long chunkSize,
                  std::function<void(std::vector<FuseItemResult>)> completion) {
  if (!list) list = std::make_shared<const std::vector<FuseableRef>>();
  std::shared_ptr<const Fuse> settings = copySettings();
  auto compiled = std::make_shared<const std::optional<FusePattern>>(createPattern(pattern));
  auto words = std::make_shared<const std::vector<FusePattern>>(
      compiled->has_value() ? wordPatterns(**compiled) : std::vector<FusePattern>{});
  auto searchOne = [settings, compiled, words](const FuseableRef& item, long index) -> std::optional<FuseItemResult> {
    if (!item) return std::nullopt;
    return settings->searchItem(**compiled, *words, *item, index);
  };
  searchInChunks<FuseableRef, FuseItemResult>(searchQueue(), compiled->has_value(), list, chunkSize, searchOne,
                                              std::move(completion));
}

}  // namespace quorvi
