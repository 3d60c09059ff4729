// Metadata queries, recent files and documents, attribute records (#11,
// #21–#25): the glue between the bus and src/spotlight, src/recent.
//  - #11, #21, #22 run on a worker and query the metadata engine;
//  - #23 reads the recently-used list;
//  - #24, #25 read one item's attributes.
// Nothing here throws across the boundary: a failure answers nil (or, for
// #21 and #22, the empty list the metadata queries answer on failure).
#include <exception>

#include "common/language.h"
#include "fileindex/file_indexer.h"
#include "recent/recent_files.h"
#include "service/service_provider.h"
#include "spotlight/attributes_reader.h"
#include "spotlight/spotlight_query.h"

namespace quorvi {

namespace {

template <typename Work>
void answering(Work&& work, const std::function<void()>& onFailure) {
  try {
    work();
  } catch (const std::exception&) {
    onFailure();
  }
}

SpotlightQuery spotlight() { return SpotlightQuery(MetadataSources::shared()); }

}  // namespace

// Files used lately that the file index's filter admits; nil when the query
// cannot be made or nothing is left. The scopes do not narrow the query: it
// covers everything the service knows, as recent files do.
void ServiceProvider::getRecentFilesWithSearchScopes(Strings, Reply reply) {
  answering(
      [&] {
        auto items = spotlight().recentFiles();
        if (!items || items->empty()) {
          reply.sendData(std::nullopt);
          return;
        }
        reply.sendJson(metadataItemsJson(*items));
      },
      [&] { reply.sendData(std::nullopt); });
}

void ServiceProvider::querySpotlightByNameWithKeyword(std::string keyword, Strings scopes, int64_t maxcount,
                                                      Reply reply) {
  answering([&] { reply.sendJson(metadataItemsJson(spotlight().queryByName(keyword, scopes, maxcount).items)); },
            [&] { reply.sendData(std::nullopt); });
}

void ServiceProvider::querySpotlightByNameAndContentsWithKeyword(std::string keyword, Strings scopes,
                                                                 int64_t maxcount, Reply reply) {
  answering(
      [&] {
        reply.sendJson(metadataItemsJson(spotlight().queryByNameAndContents(keyword, scopes, maxcount).items));
      },
      [&] { reply.sendData(std::nullopt); });
}

// The documents the application used, most recent first, as
// [{"path", "name", "date"}] (see recent_files.h); nil when there are none.
void ServiceProvider::getRecentDocumentsWithBundleIdentifier(std::string bundleIdentifier, Reply reply) {
  answering(
      [&] {
        auto documents = RecentFiles::shared().documentsOf(bundleIdentifier);
        if (documents.empty()) {
          reply.sendStringAndData(bundleIdentifier, std::nullopt);
          return;
        }
        Json array = Json::array();
        for (const auto& document : documents) array.push_back(document.toJson());
        reply.sendStringAndData(bundleIdentifier, encodeJson(array));
      },
      [&] { reply.sendStringAndData(bundleIdentifier, std::nullopt); });
}

void ServiceProvider::getAppAttributesWithPath(std::string path, Reply reply) {
  answering(
      [&] {
        auto attributes = AppAttributesReader(AttributeEnvironment::standard()).read(path);
        reply.sendDataAndString(attributes ? encodeJson(attributes->toJson()) : std::nullopt, path);
      },
      [&] { reply.sendDataAndString(std::nullopt, path); });
}

void ServiceProvider::getFileAttributesWithPath(std::string path, Reply reply) {
  answering(
      [&] {
        auto attributes = FileAttributesReader(AttributeEnvironment::standard()).read(path);
        reply.sendDataAndString(attributes ? encodeJson(attributes->toJson()) : std::nullopt, path);
      },
      [&] { reply.sendDataAndString(std::nullopt, path); });
}

}  // namespace quorvi
