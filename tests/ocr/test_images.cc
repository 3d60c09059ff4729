#include "ocr/test_images.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "platform/process_runner.h"

namespace quorvi::ocr_test {

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

void appendBigEndian(std::string& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<char>((value >> shift) & 0xFF));
}

void appendLittleEndian(std::string& out, uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

uint32_t crc32Of(std::string_view bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return ~crc;
}

}  // namespace

std::string draw(const Drawing& drawing) {
  std::string convert = findExecutable("convert");
  if (convert.empty()) {
    ADD_FAILURE() << "ImageMagick's convert is missing (tools/setup.sh installs it)";
    return {};
  }
  if (!std::filesystem::exists(drawing.font)) {
    ADD_FAILURE() << "font " << drawing.font << " is missing (tools/setup.sh installs it)";
    return {};
  }
  static std::atomic<int> counter{0};
  std::string output = (std::filesystem::temp_directory_path() /
                        ("quorvi-ocr-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + "." +
                         drawing.format))
                           .string();
  std::vector<std::string> arguments = {"-size", std::to_string(drawing.width) + "x" + std::to_string(drawing.height),
                                        "xc:" + drawing.background, "-font", drawing.font, "-pointsize",
                                        std::to_string(drawing.pointSize), "-fill", drawing.fill};
  for (const auto& line : drawing.lines) {
    arguments.insert(arguments.end(), {"-annotate", "+" + std::to_string(line.x) + "+" + std::to_string(line.baseline),
                                       line.text});
  }
  if (drawing.rotateDegrees != 0) {
    arguments.insert(arguments.end(), {"-background", drawing.background, "-rotate",
                                       std::to_string(drawing.rotateDegrees), "+repage"});
  }
  if (drawing.transparentBackground) arguments.insert(arguments.end(), {"-transparent", drawing.background});
  arguments.insert(arguments.end(), {"-depth", "8", drawing.format + ":" + output});
  ProcessResult result = runProcess(convert, arguments);
  std::string bytes = readFile(output);
  std::filesystem::remove(output);
  if (!result.launched || result.exitStatus != 0 || bytes.empty()) {
    ADD_FAILURE() << "convert failed: " << result.standardError;
    return {};
  }
  return bytes;
}

std::string pngHeaderDeclaring(uint32_t width, uint32_t height) {
  std::string png = "\x89PNG\r\n\x1a\n";
  std::string chunk = "IHDR";
  appendBigEndian(chunk, width);
  appendBigEndian(chunk, height);
  chunk += std::string("\x08\x06\x00\x00\x00", 5);  // 8-bit RGBA, no interlace
  appendBigEndian(png, 13);
  png += chunk;
  appendBigEndian(png, crc32Of(chunk));
  return png;
}

std::string gifWithFrameDeclaring(uint16_t width, uint16_t height) {
  std::string gif = "GIF89a";
  appendLittleEndian(gif, 16, 2);  // screen 16x16
  appendLittleEndian(gif, 16, 2);
  gif += std::string("\x80\x00\x00", 3);           // global colour table of 2 entries
  gif += std::string("\x00\x00\x00\xff\xff\xff", 6);
  gif += '\x2C';
  appendLittleEndian(gif, 0, 2);
  appendLittleEndian(gif, 0, 2);
  appendLittleEndian(gif, width, 2);
  appendLittleEndian(gif, height, 2);
  gif += '\x00';
  gif += std::string("\x02\x02\x4C\x01\x00", 5);  // LZW code size 2, one tiny sub-block
  gif += '\x3B';
  return gif;
}

std::string bmpHeaderDeclaring(int32_t width, int32_t height) {
  std::string bmp = "BM";
  appendLittleEndian(bmp, 54, 4);  // file size (a lie, as in an attack)
  appendLittleEndian(bmp, 0, 4);
  appendLittleEndian(bmp, 54, 4);  // pixel data offset
  appendLittleEndian(bmp, 40, 4);  // info header size
  appendLittleEndian(bmp, static_cast<uint32_t>(width), 4);
  appendLittleEndian(bmp, static_cast<uint32_t>(height), 4);
  appendLittleEndian(bmp, 1, 2);   // planes
  appendLittleEndian(bmp, 24, 2);  // bits per pixel
  bmp += std::string(24, '\0');
  return bmp;
}

}  // namespace quorvi::ocr_test
