#include "ocr/text_recognition_engine.h"

#include <leptonica/allheaders.h>
#include <sys/stat.h>
#include <tesseract/baseapi.h>
#include <tesseract/ocrclass.h>
#include <tesseract/resultiterator.h>

#include <algorithm>
#include <cmath>

#include "ocr/image_decoder.h"

namespace quorvi {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Images up to this many pixels are doubled at the accurate level.
constexpr int64_t kUpscaleMaxPixels = 4'000'000;
// Skew below this is left to Tesseract, which copes with a little.
constexpr double kMinimumDeskewDegrees = 1.0;
constexpr double kMaximumDeskewDegrees = 15.0;
constexpr double kMinimumDeskewConfidence = 2.5;

// How the image Tesseract reads was made from the one passed in: turned by
// `radians` (clockwise, embedded so that nothing is cut), then scaled.
struct Geometry {
  double scale = 1;
  double radians = 0;
  double sourceWidth = 0, sourceHeight = 0;
  double turnedWidth = 0, turnedHeight = 0;  // before scaling
};

TextFrame frameInSource(int left, int top, int right, int bottom, const Geometry& geometry) {
  double xs[4] = {double(left), double(right), double(left), double(right)};
  double ys[4] = {double(top), double(top), double(bottom), double(bottom)};
  double minX = 1e18, minY = 1e18, maxX = -1e18, maxY = -1e18;
  double c = std::cos(-geometry.radians), s = std::sin(-geometry.radians);
  for (int i = 0; i < 4; ++i) {
    double x = xs[i] / geometry.scale - geometry.turnedWidth / 2;
    double y = ys[i] / geometry.scale - geometry.turnedHeight / 2;
    // Turning back: with y pointing down, (x cos - y sin, x sin + y cos)
    // turns clockwise by the angle; here by its negative.
    double sx = x * c - y * s + geometry.sourceWidth / 2;
    double sy = x * s + y * c + geometry.sourceHeight / 2;
    minX = std::min(minX, sx), maxX = std::max(maxX, sx);
    minY = std::min(minY, sy), maxY = std::max(maxY, sy);
  }
  minX = std::clamp(minX, 0.0, geometry.sourceWidth), maxX = std::clamp(maxX, 0.0, geometry.sourceWidth);
  minY = std::clamp(minY, 0.0, geometry.sourceHeight), maxY = std::clamp(maxY, 0.0, geometry.sourceHeight);
  TextFrame frame;
  frame.x = std::llround(minX);
  frame.y = std::llround(minY);
  frame.width = std::llround(maxX) - frame.x;
  frame.height = std::llround(maxY) - frame.y;
  return frame;
}

// The clockwise angle, in degrees, that straightens the text; 0 when there
// is no clear skew worth correcting.
double deskewDegrees(Pix* image) {
  int64_t width = pixGetWidth(image), height = pixGetHeight(image);
  if (width < 64 || height < 32) return 0;
  PixPtr binary(pixConvertTo1(image, 130));
  if (!binary) return 0;
  l_int32 reduction = width * height > 2'000'000 ? 4 : 2;
  l_float32 angle = 0, confidence = 0;
  if (pixFindSkewSweepAndSearch(binary.get(), &angle, &confidence, reduction, 1, kMaximumDeskewDegrees, 1.0f,
                                0.01f) != 0) {
    return 0;
  }
  if (confidence < kMinimumDeskewConfidence || std::fabs(angle) < kMinimumDeskewDegrees ||
      std::fabs(angle) > kMaximumDeskewDegrees) {
    return 0;
  }
  return angle;
}

bool fileExists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

TextRecognitionEngine::TextRecognitionEngine(const RecognitionSettings& settings)
    : settings_(settings), api_(std::make_unique<tesseract::TessBaseAPI>()) {}

TextRecognitionEngine::~TextRecognitionEngine() {
  if (api_) api_->End();
}

std::unique_ptr<TextRecognitionEngine> TextRecognitionEngine::create(const RecognitionSettings& settings,
                                                                     std::string* failure) {
  std::unique_ptr<TextRecognitionEngine> engine(new TextRecognitionEngine(settings));
  tesseract::TessBaseAPI& api = *engine->api_;
  // Tesseract's progress and warnings ("Estimating resolution as ...") go
  // to its debug file; the service logs what matters itself.
  api.SetVariable("debug_file", "/dev/null");
  const char* dataPath = settings.dataPath.empty() ? nullptr : settings.dataPath.c_str();
  if (api.Init(dataPath, settings.languages.c_str(), tesseract::OEM_LSTM_ONLY) != 0) {
    if (failure) {
      *failure = "cannot load the text recognition models " + settings.languages +
                 (settings.dataPath.empty() ? std::string() : " from " + settings.dataPath);
    }
    return nullptr;
  }
  api.SetVariable("debug_file", "/dev/null");
  std::string folder = api.GetDatapath() ? api.GetDatapath() : "";
  if (!folder.empty() && folder.back() != '/') folder.push_back('/');
  engine->hasOrientationModel_ = fileExists(folder + "osd.traineddata");
  return engine;
}

std::optional<std::vector<RecognizedLine>> TextRecognitionEngine::recognize(Pix* image, bool accurate) {
  Geometry geometry;
  geometry.sourceWidth = geometry.turnedWidth = pixGetWidth(image);
  geometry.sourceHeight = geometry.turnedHeight = pixGetHeight(image);
  Pix* work = image;
  PixPtr turned, scaled;
  if (accurate) {
    double degrees = deskewDegrees(image);
    if (degrees != 0) {
      geometry.radians = degrees * kPi / 180;
      turned.reset(pixRotate(image, static_cast<l_float32>(geometry.radians), L_ROTATE_AREA_MAP, L_BRING_IN_WHITE,
                             pixGetWidth(image), pixGetHeight(image)));
      if (turned) {
        work = turned.get();
        geometry.turnedWidth = pixGetWidth(work);
        geometry.turnedHeight = pixGetHeight(work);
      } else {
        geometry.radians = 0;
      }
    }
    if (int64_t(pixGetWidth(work)) * pixGetHeight(work) <= kUpscaleMaxPixels) {
      scaled.reset(pixScale(work, 2.0f, 2.0f));
      if (scaled) {
        work = scaled.get();
        geometry.scale = 2;
      }
    }
  }

  api_->SetPageSegMode(accurate && hasOrientationModel_ ? tesseract::PSM_AUTO_OSD : tesseract::PSM_AUTO);
  api_->SetImage(work);
  tesseract::ETEXT_DESC monitor;
  monitor.set_deadline_msecs(static_cast<int32_t>(settings_.timeLimit.count()));
  int status = api_->Recognize(&monitor);
  if (monitor.deadline_exceeded()) {
    api_->Clear();
    return std::nullopt;
  }
  std::vector<RecognizedLine> lines;
  std::unique_ptr<tesseract::ResultIterator> iterator(status == 0 ? api_->GetIterator() : nullptr);
  if (iterator) {
    const auto level = tesseract::RIL_TEXTLINE;
    do {
      if (iterator->Empty(level)) continue;
      std::unique_ptr<char[]> text(iterator->GetUTF8Text(level));
      if (!text) continue;
      RecognizedLine line;
      line.text = withoutBlanksBetweenCjkCharacters(text.get());
      if (line.text.empty()) continue;
      line.confidence = std::clamp(iterator->Confidence(level) / 100.0, 0.0, 1.0);
      int left = 0, top = 0, right = 0, bottom = 0;
      iterator->BoundingBox(level, &left, &top, &right, &bottom);
      line.frame = frameInSource(left, top, right, bottom, geometry);
      lines.push_back(std::move(line));
    } while (iterator->Next(level));
  }
  iterator.reset();
  api_->Clear();
  return lines;
}

}  // namespace quorvi
