#include "curve_file.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

#include "errors.h"
#include "file.h"
#include "text.h"

namespace kvtile {
namespace {

// Far more than the largest table and any text written by people.
constexpr std::uint64_t kLargestFile = std::uint64_t{1} << 20;

constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";  // some editors begin UTF-8 with it
constexpr std::string_view kBlanks = " \t\r";

const char* const kPointAdvice = "write 'input output', two numbers from 0 to 1";

struct Point {
  double input;
  double output;
};

[[noreturn]] void failInLine(const std::string& path, std::size_t line, const std::string& what,
                             const std::string& advice) {
  throw Failure(path, "line " + std::to_string(line) + " " + what, advice);
}

// Takes the next word off the front of `line`; empty at the end.
std::string_view takeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
  const std::string_view word = line.substr(0, line.find_first_of(kBlanks));
  line.remove_prefix(word.size());
  return word;
}

// A number from 0 to 1; nothing for other words.
std::optional<double> parseFraction(std::string_view word) {
  double value = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  const bool whole = error == std::errc() && end == word.data() + word.size();
  return whole && value >= 0 && value <= 1 ? std::optional(value) : std::nullopt;
}

// Nothing for a line without a point.
std::optional<Point> parseLine(const std::string& path, std::size_t number, std::string_view line) {
  line = line.substr(0, line.find('#'));
  const std::string_view first = takeWord(line);
  const std::string_view second = takeWord(line);
  if (first.empty()) {
    return std::nullopt;
  }
  const auto input = parseFraction(first);
  const auto output = parseFraction(second);
  if (!input || !output || !takeWord(line).empty()) {
    failInLine(path, number, "is no control point", kPointAdvice);
  }
  return Point{*input, *output};
}

std::vector<Point> parsePoints(const std::string& path, std::string_view text) {
  std::vector<Point> points;
  if (text.starts_with(kByteOrderMark)) {
    text.remove_prefix(kByteOrderMark.size());
  }
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    const auto point = parseLine(path, number, line);
    if (!point) {
      continue;
    }
    if (!points.empty() && point->input <= points.back().input) {
      failInLine(path, number, "has an input that is not above the one before", "list the points by ascending inputs");
    }
    points.push_back(*point);
  }
  if (points.size() < 2) {
    throw Failure(path, points.empty() ? "holds no control points" : "holds one control point only",
                  std::string("give it two or more; in each line ") + kPointAdvice);
  }
  return points;
}

}  // namespace

std::vector<std::uint16_t> parseCurveText(const std::string& path, std::string_view text, std::uint32_t bits) {
  std::vector<Point> points = parsePoints(path, text);
  const std::size_t count = std::size_t{1} << bits;
  const auto highest = static_cast<double>(count - 1);
  // On the scale of the samples halves are exact, which fractions of 255 and 65535 are not.
  for (Point& point : points) {
    point = {point.input * highest, point.output * highest};
  }
  std::vector<std::uint16_t> entries;
  std::size_t next = 0;  // the first point that is not before the value
  for (std::size_t i = 0; i < count; ++i) {
    const auto value = static_cast<double>(i);
    while (next < points.size() && points[next].input < value) {
      ++next;
    }
    double output = next == 0 ? points.front().output : points.back().output;
    if (next > 0 && next < points.size()) {
      const Point& a = points[next - 1];
      const Point& b = points[next];
      output = a.output + (value - a.input) * (b.output - a.output) / (b.input - a.input);
    }
    entries.push_back(static_cast<std::uint16_t>(std::floor(output + 0.5)));
  }
  return entries;
}

std::vector<std::uint16_t> parseCurveTable(const std::string& path, std::string_view bytes, std::uint32_t bits) {
  const std::size_t entryBytes = bits / 8;
  const std::size_t count = std::size_t{1} << bits;
  if (bytes.size() != count * entryBytes) {
    throw Failure(path,
                  "is no text, and as a table for samples of " + std::to_string(bits) + " bits it should have " +
                      std::to_string(count * entryBytes) + " bytes instead of " + std::to_string(bytes.size()),
                  "give a table of that size, or a text of control points");
  }
  std::vector<std::uint16_t> entries;
  for (std::size_t i = 0; i < count; ++i) {
    std::uint32_t entry = static_cast<unsigned char>(bytes[i * entryBytes]);
    if (entryBytes == 2) {
      entry |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i * 2 + 1])) << 8;
    }
    entries.push_back(static_cast<std::uint16_t>(entry));
  }
  return entries;
}

std::vector<std::uint16_t> readCurveFile(const std::string& path, std::uint32_t bits) {
  File file = File::openForReading(path);
  const std::uint64_t size = file.size();
  if (size > kLargestFile) {
    throw Failure(path, "is too large for a tone curve (" + std::to_string(size) + " bytes)",
                  "name a text of control points or a table");
  }
  std::string contents(size, '\0');
  contents.resize(file.read(contents.data(), contents.size()));
  if (file.error() != 0) {
    throw Failure(path, std::string("cannot be read (") + std::strerror(file.error()) + ")", "check the disk");
  }
  return isText(contents) ? parseCurveText(path, contents, bits) : parseCurveTable(path, contents, bits);
}

}  // namespace kvtile
