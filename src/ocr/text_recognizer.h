// TextRecognizer: answers the launcher's text recognition requests. It
// keeps a small pool of initialised engines (text_recognition_engine.h),
// made as requests need them, up to one per core (at most four) and kept
// for the life of the process.
//
// Where work runs: a request is checked (size, format, declared
// dimensions) on the calling request thread. If an engine is free, or the
// pool may still grow, the request is recognised right there. Otherwise it
// is queued, and the request that finishes with an engine hands it to the
// oldest queued request, which then runs as new work on the request pool:
// no thread ever waits for an engine. The queue is bounded (requests and
// bytes); beyond it a request is answered "busy" at once.
//
// Tesseract's OpenMP threads would compete with the service's own, so the
// service runs with OMP_THREAD_LIMIT=1 (set before the libraries load, see
// service/main.cc): each engine uses one core, and concurrent requests
// spread over the cores instead.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/json.h"
#include "ocr/image_decoder.h"
#include "ocr/text_recognition_engine.h"

namespace quorvi {

class TextRecognizer : public std::enable_shared_from_this<TextRecognizer> {
 public:
  // The reply: data (the JSON array of lines) or nil, and the failure text
  // when recognition could not be done.
  struct Answer {
    OptionalBytes data;
    std::optional<std::string> failure;
  };
  using Completion = std::function<void(Answer)>;

  struct Options {
    RecognitionSettings settings;
    ImageLimits limits;
    std::size_t maxEngines = 0;  // 0: one per core, at most four
    std::size_t maxQueuedRequests = 32;
    std::size_t maxQueuedBytes = 256u << 20;
  };

  // The process-wide recogniser, created on the first request.
  static TextRecognizer& shared();
  static std::shared_ptr<TextRecognizer> make(Options options);

  // Recognises the text in the image; calls completion once, on this thread
  // or later on a request thread.
  void recognize(Bytes image, int64_t identifier, bool isAccurateLevel, Completion completion);

  struct Statistics {
    std::size_t engines = 0;      // created and alive
    std::size_t busyEngines = 0;
    std::size_t queued = 0;
    uint64_t recognitions = 0;
  };
  Statistics statistics() const;

 private:
  struct Request {
    Bytes image;
    int64_t identifier = 0;
    bool accurate = false;
    Completion completion;
  };

  explicit TextRecognizer(Options options);
  // Runs the request with the engine (nullptr: make one first), then hands
  // the engine on to the next queued request.
  void run(Request request, std::unique_ptr<TextRecognitionEngine> engine);
  Answer answer(const Request& request, TextRecognitionEngine& engine);
  void handOn(std::unique_ptr<TextRecognitionEngine> engine);

  Options options_;
  mutable std::mutex mutex_;  // guards the fields below
  std::vector<std::unique_ptr<TextRecognitionEngine>> idleEngines_;
  std::size_t engineSlots_ = 0;  // engines alive or being made
  std::size_t busyEngines_ = 0;
  std::deque<Request> queue_;
  std::size_t queuedBytes_ = 0;
  uint64_t recognitions_ = 0;
};

}  // namespace quorvi
