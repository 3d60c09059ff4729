#include "ocr/text_recognizer.h"

#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>

#include "common/dispatch.h"
#include "common/quorvi_error.h"

namespace quorvi {

namespace {

std::string errorText(QuorviError::Case errorCase) { return QuorviError(errorCase).description(); }

std::string failureText(ImageFailure failure) {
  return errorText(failure == ImageFailure::tooLarge ? QuorviError::Case::imageTooLarge
                                                     : QuorviError::Case::cgImageNotFound);
}

std::size_t defaultEngineCount() {
  return std::clamp<std::size_t>(std::thread::hardware_concurrency(), 1, 4);
}

}  // namespace

TextRecognizer& TextRecognizer::shared() {
  static TextRecognizer* recognizer = [] {
    // Never destroyed: requests may still run while the process ends.
    return new std::shared_ptr<TextRecognizer>(make(Options{}));
  }()->get();
  return *recognizer;
}

std::shared_ptr<TextRecognizer> TextRecognizer::make(Options options) {
  return std::shared_ptr<TextRecognizer>(new TextRecognizer(std::move(options)));
}

TextRecognizer::TextRecognizer(Options options) : options_(std::move(options)) {
  if (options_.maxEngines == 0) options_.maxEngines = defaultEngineCount();
}

void TextRecognizer::recognize(Bytes image, int64_t identifier, bool isAccurateLevel, Completion completion) {
  ImageHeader header = readImageHeader(image, options_.limits);
  if (header.failure != ImageFailure::none) {
    completion({std::nullopt, failureText(header.failure)});
    return;
  }
  Request request{std::move(image), identifier, isAccurateLevel, std::move(completion)};
  enum class Next { runNow, queued, busy } next;
  std::unique_ptr<TextRecognitionEngine> engine;
  {
    std::lock_guard guard(mutex_);
    if (!idleEngines_.empty()) {
      engine = std::move(idleEngines_.back());
      idleEngines_.pop_back();
      ++busyEngines_;
      next = Next::runNow;
    } else if (engineSlots_ < options_.maxEngines) {
      ++engineSlots_;  // the engine is made in run(), outside the lock
      ++busyEngines_;
      next = Next::runNow;
    } else if (queue_.size() >= options_.maxQueuedRequests ||
               queuedBytes_ + request.image.size() > options_.maxQueuedBytes) {
      next = Next::busy;
    } else {
      queuedBytes_ += request.image.size();
      queue_.push_back(std::move(request));
      next = Next::queued;
    }
  }
  if (next == Next::busy) request.completion({std::nullopt, errorText(QuorviError::Case::operationBusy)});
  if (next == Next::runNow) run(std::move(request), std::move(engine));
}

void TextRecognizer::run(Request request, std::unique_ptr<TextRecognitionEngine> engine) {
  Answer answered;
  try {
    if (!engine) {
      auto start = std::chrono::steady_clock::now();
      std::string failure;
      engine = TextRecognitionEngine::create(options_.settings, &failure);
      if (engine) {
        double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
        std::printf("ocr: engine for %s ready in %.0f ms\n", options_.settings.languages.c_str(), ms);
      } else {
        std::printf("ocr: %s\n", failure.c_str());
      }
    }
    answered = engine ? answer(request, *engine)
                      : Answer{std::nullopt, errorText(QuorviError::Case::serviseInvalid)};
  } catch (const std::exception& error) {
    // An engine that threw half way is not trusted again.
    std::printf("ocr: recognition failed: %s\n", error.what());
    engine.reset();
    answered = {std::nullopt, errorText(QuorviError::Case::noResult)};
  }
  request.completion(std::move(answered));
  handOn(std::move(engine));
}

TextRecognizer::Answer TextRecognizer::answer(const Request& request, TextRecognitionEngine& engine) {
  DecodedImage decoded = decodeImage(request.image, options_.limits);
  if (decoded.failure != ImageFailure::none) return {std::nullopt, failureText(decoded.failure)};
  auto lines = engine.recognize(decoded.pix.get(), request.accurate);
  {
    std::lock_guard guard(mutex_);
    ++recognitions_;
  }
  if (!lines) return {std::nullopt, errorText(QuorviError::Case::noResult)};
  if (lines->empty()) return {};
  return {encodeJson(recognizedLinesJson(*lines, request.identifier)), std::nullopt};
}

void TextRecognizer::handOn(std::unique_ptr<TextRecognitionEngine> engine) {
  std::unique_lock lock(mutex_);
  if (queue_.empty()) {
    --busyEngines_;
    if (engine) {
      idleEngines_.push_back(std::move(engine));
    } else {
      --engineSlots_;  // the next request may try to make one again
    }
    return;
  }
  // The engine (or its slot, when it could not be made) goes to the oldest
  // waiting request, as new work on the request pool.
  auto next = std::make_shared<Request>(std::move(queue_.front()));
  queue_.pop_front();
  queuedBytes_ -= next->image.size();
  lock.unlock();
  auto handed = std::make_shared<std::unique_ptr<TextRecognitionEngine>>(std::move(engine));
  DispatchQueue::global().async([self = shared_from_this(), next, handed] {
    self->run(std::move(*next), std::move(*handed));
  });
}

TextRecognizer::Statistics TextRecognizer::statistics() const {
  std::lock_guard guard(mutex_);
  return {engineSlots_, busyEngines_, queue_.size(), recognitions_};
}

}  // namespace quorvi
