// TextRecognitionEngine: one initialised Tesseract instance with its
// language models (English and simplified Chinese by default). Creating one
// loads the models, which takes a few hundred milliseconds, so engines are
// kept and reused (see text_recognizer.h). An engine is used by one thread
// at a time.
//
// The two levels:
//  - fast: the image as it is, Tesseract's automatic page segmentation;
//  - accurate: a skewed image is straightened first (up to 15 degrees, found
//    by Leptonica), small images are doubled in size (Tesseract reads text
//    best at about 30 pixels to a capital), and orientation and script
//    detection runs before segmentation when its model is installed.
// Frames are always given in the pixels of the image as passed in.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ocr/recognized_line.h"

struct Pix;
namespace tesseract {
class TessBaseAPI;
}

namespace quorvi {

struct RecognitionSettings {
  std::string dataPath;                      // empty: TESSDATA_PREFIX or Tesseract's own default
  std::string languages = "eng+chi_sim";
  std::chrono::milliseconds timeLimit{60000};  // one image, then recognition gives up
};

class TextRecognitionEngine {
 public:
  // Loads the models; nullptr with the reason when they cannot be loaded.
  static std::unique_ptr<TextRecognitionEngine> create(const RecognitionSettings& settings, std::string* failure);
  ~TextRecognitionEngine();
  TextRecognitionEngine(const TextRecognitionEngine&) = delete;
  TextRecognitionEngine& operator=(const TextRecognitionEngine&) = delete;

  // The lines in reading order, without empty ones; nullopt when
  // recognition failed or ran out of time.
  std::optional<std::vector<RecognizedLine>> recognize(Pix* image, bool accurate);

 private:
  explicit TextRecognitionEngine(const RecognitionSettings& settings);
  RecognitionSettings settings_;
  std::unique_ptr<tesseract::TessBaseAPI> api_;
  bool hasOrientationModel_ = false;
};

}  // namespace quorvi
