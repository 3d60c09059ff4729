// RecognizedLine: one line of text found in an image, and the JSON record
// that carries it to the client.
//
// JSON: an array of the lines in reading order, each
//   {"identifier": <the request's identifier>, "isFlipped": true,
//    "text": "...", "frame": {"x":..,"y":..,"width":..,"height":..},
//    "confidence": 0.0-1.0}
// Frames are in the pixels of the image as sent, origin at the top left
// (hence isFlipped: true, as opposed to a bottom-left origin).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/json.h"

namespace quorvi {

struct TextFrame {
  int64_t x = 0;
  int64_t y = 0;
  int64_t width = 0;
  int64_t height = 0;
};

struct RecognizedLine {
  std::string text;
  double confidence = 0;  // 0 to 1
  TextFrame frame;
};

Json recognizedLinesJson(const std::vector<RecognizedLine>& lines, int64_t identifier);

// Tesseract separates Chinese characters by blanks as if each were a word;
// Chinese is written without them. Removes the blanks that stand between
// two CJK characters (Han, kana, CJK and full-width punctuation) and trims
// the ends; blanks between CJK and other text stay.
std::string withoutBlanksBetweenCjkCharacters(std::string_view text);

}  // namespace quorvi
