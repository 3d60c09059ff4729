// ServiceProvider: the one object behind the bus interface. It holds no state
// and routes each of the 33 operations to the component that owns it; the
// components are process-wide shared instances made lazily on first use.
//
// Threading: the transport calls the "quick" operations (see members.def) on
// the bus thread, so they must answer at once from memory; every other
// operation is called on a worker of the global pool and may block briefly.
// Operations without a reply have already been acknowledged when called.
//
// The operations are implemented in one file per subsystem:
//   service_provider.cc  frame: #1, #20, #26, #31, #32
//   provider_files.cc    file index: #5–#19
//   provider_apps.cc     app index: #2–#4
//   provider_zotero.cc   Zotero: #28, #29
//   provider_processes.cc processes: #33
//   provider_spotlight.cc recent files and documents, metadata queries,
//                        attributes: #11, #21–#25
//   provider_lookups.cc  text recognition, contacts: #27, #30
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "service/reply.h"

namespace quorvi {

using Strings = std::vector<std::string>;

class ServiceProvider {
 public:
  static ServiceProvider& shared();

  void neverReplyWithBlock(Reply reply);                                              // 1
  void startIndexAppsWithSearchScopes(Strings scopes, Reply completion);              // 2
  void checkAppIndexIsReadyWithCompletion(Reply reply);                               // 3
  void getAppsWithCompletionHandler(Reply reply);                                     // 4
  void workspaceWillSleep();                                                          // 5
  void workspaceDidAwake();                                                           // 6
  void startIndexFilesWithSearchScopes(Strings scopes);                               // 7
  void fileIndexRemoveWithSearchScopes(Strings scopes);                               // 8
  void fileIndexAddWithSearchScopes(Strings scopes);                                  // 9
  void getFileIndexResultDescriptionWithCompletion(Reply reply);                      // 10
  void getRecentFilesWithSearchScopes(Strings scopes, Reply reply);                   // 11
  void searchFilesWithQuery(std::string query, int64_t maxcount, Reply reply);        // 12
  void searchFilesIn(std::string directory, std::string query, int64_t maxcount, Reply reply);  // 13
  void searchFoldersWithQuery(std::string query, int64_t maxcount, Reply reply);      // 14
  void containsFileAt(std::string path, Reply reply);                                 // 15
  void getVSCodeWorkspacesWithCompletionHandler(Reply reply);                         // 16
  void getAllXcodeProjectsWithCompletionHandler(Reply reply);                         // 17
  void getDirectoryFiles(std::string directory, bool skipHiddenFiles, Reply reply);   // 18
  void getPerformanceSnapshotWithCompletion(Reply reply);                             // 19
  void exportEventLogsTo(std::string destination);                                    // 20
  void querySpotlightByNameWithKeyword(std::string keyword, Strings scopes, int64_t maxcount, Reply reply);  // 21
  void querySpotlightByNameAndContentsWithKeyword(std::string keyword, Strings scopes, int64_t maxcount,
                                                  Reply reply);                       // 22
  void getRecentDocumentsWithBundleIdentifier(std::string bundleIdentifier, Reply reply);  // 23
  void getAppAttributesWithPath(std::string path, Reply reply);                       // 24
  void getFileAttributesWithPath(std::string path, Reply reply);                      // 25
  void readPasteboardWithFrontmostApplication(std::string bundleIdentifier, Reply reply);  // 26
  void ocrWithImage(Bytes image, int64_t identifier, bool isAccurateLevel, Reply reply);  // 27
  void indexZoteroAt(std::string folder, bool useCacheIfAvailable, Reply reply);      // 28
  void getZoteroPreviewWithItemID(int64_t itemID, Reply reply);                       // 29
  void searchContactsWithQuery(std::string query, int64_t maxcount, Reply reply);     // 30
  void performQuorviTask(std::string name, Strings arguments);                        // 31
  void performQuorviTaskWithReply(std::string name, Strings arguments, Reply reply);  // 32
  void getRunningProcessesWithCompletion(Reply reply);                                // 33

 private:
  ServiceProvider() = default;
};

}  // namespace quorvi
