// Text recognition on images the tests draw, with the real Tesseract models.
#include "ocr/text_recognizer.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <thread>

#include "common/quorvi_error.h"
#include "ocr/test_images.h"
#include "support/test_bus.h"

namespace quorvi {
namespace {

using namespace ocr_test;
using namespace std::chrono_literals;

TextRecognizer::Answer recognizeNow(TextRecognizer& recognizer, const std::string& image, bool accurate,
                                    int64_t identifier = 1) {
  auto promise = std::make_shared<std::promise<TextRecognizer::Answer>>();
  auto future = promise->get_future();
  recognizer.recognize(image, identifier, accurate, [promise](TextRecognizer::Answer answer) {
    promise->set_value(std::move(answer));
  });
  if (future.wait_for(120s) != std::future_status::ready) {
    ADD_FAILURE() << "no answer";
    return {};
  }
  return future.get();
}

Json linesOf(const TextRecognizer::Answer& answer) {
  EXPECT_FALSE(answer.failure) << *answer.failure;
  if (!answer.data) return Json::array();
  return Json::parse(*answer.data);
}

std::string errorText(QuorviError::Case errorCase) { return QuorviError(errorCase).description(); }

// One recogniser for the tests that only read text: engines are made once.
TextRecognizer& sharedRecognizer() {
  static auto recognizer = TextRecognizer::make({});
  return *recognizer;
}

TEST(TextRecognition, EnglishLinesInReadingOrderWithTheirFrames) {
  Drawing drawing;
  drawing.width = 720, drawing.height = 170;
  drawing.lines = {{"The quick brown fox jumps over the lazy dog.", 20, 40},
                   {"Invoice 2024-117: total due 1,234.56 EUR", 20, 90},
                   {"Open Settings to allow screen recording", 20, 140}};
  auto answer = recognizeNow(sharedRecognizer(), draw(drawing), false, 42);
  Json lines = linesOf(answer);
  ASSERT_EQ(lines.size(), 3u) << lines.dump();
  for (std::size_t i = 0; i < 3; ++i) {
    const Json& line = lines[i];
    EXPECT_EQ(line["text"], drawing.lines[i].text);
    EXPECT_EQ(line["identifier"], 42) << "the request's identifier";
    EXPECT_EQ(line["isFlipped"], true);
    double confidence = line["confidence"];
    EXPECT_GT(confidence, 0.8);
    EXPECT_LE(confidence, 1.0);
    // Frames in the image's pixels, origin top left: the text sits above its baseline.
    const Json& frame = line["frame"];
    int baseline = drawing.lines[i].baseline;
    EXPECT_NEAR(frame["x"].get<int>(), 20, 4);
    EXPECT_GE(frame["y"].get<int>(), baseline - 30);
    EXPECT_LE(frame["y"].get<int>() + frame["height"].get<int>(), baseline + 8);
    EXPECT_GT(frame["width"].get<int>(), 350);
  }
  EXPECT_EQ(std::vector<std::string>({"identifier", "isFlipped", "text", "frame", "confidence"}),
            [&] {
              std::vector<std::string> keys;
              for (auto it = lines[0].begin(); it != lines[0].end(); ++it) keys.push_back(it.key());
              return keys;
            }());
}

TEST(TextRecognition, ChineseWithoutTheBlanksBetweenCharacters) {
  Drawing drawing;
  drawing.width = 520, drawing.height = 80, drawing.font = kChineseFont, drawing.pointSize = 28;
  drawing.lines = {{"我们的会议改到明天下午三点", 20, 50}};
  for (bool accurate : {false, true}) {
    Json lines = linesOf(recognizeNow(sharedRecognizer(), draw(drawing), accurate));
    ASSERT_EQ(lines.size(), 1u) << lines.dump();
    EXPECT_EQ(lines[0]["text"], "我们的会议改到明天下午三点") << (accurate ? "accurate" : "fast");
  }
}

TEST(TextRecognition, AccurateLevelStraightensARotatedLineAndMapsItsFrameBack) {
  Drawing drawing;
  drawing.width = 620, drawing.height = 110, drawing.pointSize = 28;
  drawing.lines = {{"Rotated invoice number 4471", 20, 70}};
  drawing.rotateDegrees = 10;
  std::string image = draw(drawing);
  Json lines = linesOf(recognizeNow(sharedRecognizer(), image, true));
  ASSERT_EQ(lines.size(), 1u) << lines.dump();
  EXPECT_EQ(lines[0]["text"], "Rotated invoice number 4471");
  // The turned image is about 630 x 215; the line runs corner to corner.
  const Json& frame = lines[0]["frame"];
  EXPECT_GE(frame["x"].get<int>(), 0);
  EXPECT_LT(frame["x"].get<int>(), 60);
  EXPECT_GT(frame["width"].get<int>(), 400);
  EXPECT_GT(frame["height"].get<int>(), 70) << "the box of a slanted line is tall";
  EXPECT_LE(frame["y"].get<int>() + frame["height"].get<int>(), 220);
}

TEST(TextRecognition, AccurateLevelReadsSmallTextAndKeepsFramesInTheImagesPixels) {
  Drawing drawing;
  drawing.width = 300, drawing.height = 40, drawing.pointSize = 11;
  drawing.lines = {{"small print 0815", 30, 25}};
  Json lines = linesOf(recognizeNow(sharedRecognizer(), draw(drawing), true));
  ASSERT_EQ(lines.size(), 1u) << lines.dump();
  EXPECT_EQ(lines[0]["text"], "small print 0815");
  const Json& frame = lines[0]["frame"];
  EXPECT_NEAR(frame["x"].get<int>(), 30, 3) << "read at double size, reported in the image's own pixels";
  EXPECT_LT(frame["width"].get<int>(), 150);
  EXPECT_LE(frame["y"].get<int>() + frame["height"].get<int>(), 30);
}

TEST(TextRecognition, AnEmptyImageAnswersNilWithoutAFailure) {
  Drawing drawing;
  drawing.width = 400, drawing.height = 200;
  for (bool accurate : {false, true}) {
    auto answer = recognizeNow(sharedRecognizer(), draw(drawing), accurate);
    EXPECT_FALSE(answer.data);
    EXPECT_FALSE(answer.failure);
  }
}

TEST(TextRecognition, BytesThatAreNoImageOrTooLargeAnswerTheirFailure) {
  auto garbage = recognizeNow(sharedRecognizer(), "definitely not an image, just some text bytes", false);
  EXPECT_FALSE(garbage.data);
  EXPECT_EQ(garbage.failure, errorText(QuorviError::Case::cgImageNotFound));

  auto bomb = recognizeNow(sharedRecognizer(), pngHeaderDeclaring(200000, 200000), true);
  EXPECT_FALSE(bomb.data);
  EXPECT_EQ(bomb.failure, errorText(QuorviError::Case::imageTooLarge));

  auto gifBomb = recognizeNow(sharedRecognizer(), gifWithFrameDeclaring(65535, 65535), false);
  EXPECT_EQ(gifBomb.failure, errorText(QuorviError::Case::imageTooLarge));

  auto truncated = recognizeNow(sharedRecognizer(), pngHeaderDeclaring(50, 50), false);
  EXPECT_EQ(truncated.failure, errorText(QuorviError::Case::cgImageNotFound)) << "the header alone";
}

TEST(TextRecognition, MissingModelsAnswerTheServiceFailure) {
  testing::TemporaryDirectory empty;
  TextRecognizer::Options options;
  options.settings.dataPath = empty.path();
  auto recognizer = TextRecognizer::make(options);
  Drawing drawing;
  drawing.lines = {{"text", 20, 40}};
  auto answer = recognizeNow(*recognizer, draw(drawing), false);
  EXPECT_FALSE(answer.data);
  EXPECT_EQ(answer.failure, errorText(QuorviError::Case::serviseInvalid));
  EXPECT_EQ(recognizer->statistics().engines, 0u) << "a failed engine does not hold a place";
}

TEST(TextRecognitionPool, RequestsBeyondTheEnginesWaitInABoundedQueue) {
  TextRecognizer::Options options;
  options.maxEngines = 1;
  options.maxQueuedRequests = 1;
  auto recognizer = TextRecognizer::make(options);
  Drawing first, second;
  first.lines = {{"first request", 20, 40}};
  second.lines = {{"second request", 20, 40}};
  std::string firstImage = draw(first), secondImage = draw(second);

  // The first request holds the only engine until the test lets it go: its
  // completion runs before the engine is handed on.
  std::mutex mutex;
  std::condition_variable released;
  bool release = false;
  std::promise<Json> firstLines;
  std::thread holder([&] {
    recognizer->recognize(firstImage, 1, false, [&](TextRecognizer::Answer answer) {
      firstLines.set_value(linesOf(answer));
      std::unique_lock lock(mutex);
      released.wait(lock, [&] { return release; });
    });
  });
  auto firstFuture = firstLines.get_future();
  ASSERT_EQ(firstFuture.wait_for(120s), std::future_status::ready);

  auto queued = std::make_shared<std::promise<TextRecognizer::Answer>>();
  auto queuedFuture = queued->get_future();
  recognizer->recognize(secondImage, 2, false, [queued](TextRecognizer::Answer a) { queued->set_value(a); });
  EXPECT_EQ(recognizer->statistics().queued, 1u) << "the request waits; no thread waits for it";
  EXPECT_EQ(queuedFuture.wait_for(0s), std::future_status::timeout);

  auto busy = recognizeNow(*recognizer, secondImage, false);
  EXPECT_EQ(busy.failure, errorText(QuorviError::Case::operationBusy)) << "the queue holds one";

  {
    std::lock_guard guard(mutex);
    release = true;
  }
  released.notify_all();
  holder.join();
  ASSERT_EQ(queuedFuture.wait_for(120s), std::future_status::ready);
  Json secondLines = linesOf(queuedFuture.get());
  ASSERT_EQ(secondLines.size(), 1u);
  EXPECT_EQ(secondLines[0]["text"], "second request");
  EXPECT_EQ(secondLines[0]["identifier"], 2);
  EXPECT_EQ(firstFuture.get()[0]["text"], "first request");
  auto statistics = recognizer->statistics();
  EXPECT_EQ(statistics.engines, 1u) << "one engine served both";
  EXPECT_EQ(statistics.recognitions, 2u);
  EXPECT_EQ(statistics.queued, 0u);
}

TEST(TextRecognitionPool, ConcurrentRequestsEachGetTheirOwnText) {
  TextRecognizer::Options options;
  options.maxEngines = 2;
  auto recognizer = TextRecognizer::make(options);
  std::vector<std::string> texts = {"alpha 101", "bravo 202", "charlie 303", "delta 404"};
  std::vector<std::string> images;
  for (const auto& text : texts) {
    Drawing drawing;
    drawing.width = 300, drawing.height = 60;
    drawing.lines = {{text, 20, 40}};
    images.push_back(draw(drawing));
  }
  std::vector<std::future<TextRecognizer::Answer>> answers;
  for (std::size_t i = 0; i < images.size(); ++i) {
    answers.push_back(std::async(std::launch::async, [&, i] {
      return recognizeNow(*recognizer, images[i], false, static_cast<int64_t>(i));
    }));
  }
  for (std::size_t i = 0; i < answers.size(); ++i) {
    Json lines = linesOf(answers[i].get());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["text"], texts[i]);
    EXPECT_EQ(lines[0]["identifier"], static_cast<int64_t>(i));
  }
  EXPECT_LE(recognizer->statistics().engines, 2u);
  EXPECT_EQ(recognizer->statistics().recognitions, 4u);
}

}  // namespace
}  // namespace quorvi
