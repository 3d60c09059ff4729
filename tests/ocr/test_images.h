// Images for the text recognition tests, drawn by ImageMagick with fonts
// from Debian's packages (fonts-dejavu-core, fonts-wqy-zenhei), and
// hand-made headers of malformed files.
#pragma once

#include <string>
#include <vector>

namespace quorvi::ocr_test {

inline const char* kLatinFont = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
inline const char* kChineseFont = "/usr/share/fonts/truetype/wqy/wqy-zenhei.ttc";

struct TextLine {
  std::string text;
  int x = 20;
  int baseline = 40;  // y of the text's baseline
};

struct Drawing {
  int width = 600;
  int height = 100;
  std::string font = kLatinFont;
  int pointSize = 24;
  std::vector<TextLine> lines;
  double rotateDegrees = 0;      // clockwise, on a white background
  std::string background = "white";
  std::string fill = "black";
  std::string format = "png";    // png, jpg, gif, bmp, tiff...
  bool transparentBackground = false;
};

// The image file's bytes; fails the calling test (and returns "") when
// ImageMagick or the font is missing.
std::string draw(const Drawing& drawing);

// A PNG signature and IHDR chunk declaring the size, and nothing more.
std::string pngHeaderDeclaring(uint32_t width, uint32_t height);
// A GIF with a small screen whose one frame declares the given size.
std::string gifWithFrameDeclaring(uint16_t width, uint16_t height);
// A BMP header declaring the size, without its pixels.
std::string bmpHeaderDeclaring(int32_t width, int32_t height);

}  // namespace quorvi::ocr_test
