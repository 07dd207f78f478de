#include "resize_options.h"

#include <algorithm>
#include <optional>
#include <thread>
#include <utility>

#include "arguments.h"

namespace kvtile {
namespace {

constexpr std::uint32_t kMostThreads = 256;

constexpr std::pair<const char*, std::uint32_t> kFilters[] = {
    {"box", KVTI_FILTER_BOX},         {"bicubic", KVTI_FILTER_BICUBIC},        {"bilinear", KVTI_FILTER_BILINEAR},
    {"bspline", KVTI_FILTER_BSPLINE}, {"catmull-rom", KVTI_FILTER_CATMULLROM}, {"lanczos3", KVTI_FILTER_LANCZOS3}};

// A side of a picture; nothing for other texts and for more than a picture can have.
std::optional<std::uint32_t> parsePixels(const std::string& text) {
  const auto pixels = parseWhole(text, UINT32_MAX);
  return pixels && *pixels > 0 ? pixels : std::nullopt;
}

std::optional<double> parseScale(const std::string& text) {
  const auto scale = parseNumber(text);
  return scale && *scale > 0 ? scale : std::nullopt;
}

// "10,20,300,400".
std::optional<Area> parseArea(const std::string& text) {
  std::uint32_t numbers[4] = {};
  std::size_t begin = 0;
  for (std::uint32_t& number : numbers) {
    const bool last = &number == &numbers[3];
    const std::size_t end = last ? text.size() : text.find(',', begin);
    const auto parsed =
        end == std::string::npos ? std::nullopt : parseWhole(text.substr(begin, end - begin), UINT32_MAX);
    if (!parsed) {
      return std::nullopt;
    }
    number = *parsed;
    begin = end + 1;
  }
  const Area area = {numbers[0], numbers[1], numbers[2], numbers[3]};
  return area.width > 0 && area.height > 0 ? std::optional(area) : std::nullopt;
}

std::optional<std::uint32_t> parseFilter(const std::string& text) {
  const auto* found = std::find_if(std::begin(kFilters), std::end(kFilters),
                                   [&text](const auto& filter) { return filter.first == text; });
  return found == std::end(kFilters) ? std::nullopt : std::optional(found->second);
}

std::optional<std::uint32_t> parseThreads(const std::string& text) {
  const auto threads = parseWhole(text, kMostThreads);
  return threads && *threads > 0 ? threads : std::nullopt;
}

std::string checkPixels(std::string& text) {
  return parsePixels(text)
             ? ""
             : "'" + withMinus(text) + "' is no number of pixels: allowed are 1 to " + std::to_string(UINT32_MAX);
}

std::string checkScale(std::string& text) {
  return parseScale(text) ? "" : "'" + withMinus(text) + "' is no scale: allowed are numbers above 0, such as 0.5";
}

std::string checkArea(std::string& text) {
  return parseArea(text) ? ""
                         : "'" + withMinus(text) +
                               "' is no area: allowed are left, top, width and height in pixels, such as 0,0,800,600";
}

std::string checkFilter(std::string& text) {
  return parseFilter(text)
             ? ""
             : "'" + withMinus(text) +
                   "' is no filter: allowed are box, bicubic, bilinear, bspline, catmull-rom and lanczos3";
}

std::string checkThreads(std::string& text) {
  return parseThreads(text) ? "" : "'" + withMinus(text) + "' is no number of threads: allowed are 1 to 256";
}

CLI::Option* addChecked(CLI::App& command, const char* name, std::string& value, const char* help, const char* type,
                        std::string (*check)(std::string&)) {
  return command.add_option(name, value, help)->type_name(type)->check(CLI::Validator(check, ""));
}

}  // namespace

void addResizeOptions(CLI::App& command, ResizeOptions& options) {
  addChecked(command, "--width", options.width, "Pixels from left to right; follows from the height if left out", "N",
             checkPixels);
  addChecked(command, "--height", options.height, "Pixels from top to bottom; follows from the width if left out", "N",
             checkPixels);
  addChecked(command, "--scale", options.scale, "Both sides times F, such as 0.5", "F", checkScale);
  addChecked(command, "--crop", options.crop, "Take this part of the picture only: left, top, width and height",
             "X,Y,W,H", checkArea);
  addChecked(command, "--filter", options.filter,
             "How pixels are blended: lanczos3 (as without it), catmull-rom, bicubic, bilinear, bspline or box", "NAME",
             checkFilter);
  addChecked(command, "--threads", options.threads, "Threads to work with; without it, one for each processor", "N",
             checkThreads);
  command.callback([&options] {
    const bool sides = !options.width.empty() || !options.height.empty();
    if (sides && !options.scale.empty()) {
      throw CLI::ExcludesError("--scale", options.width.empty() ? "--height" : "--width");
    }
    if (!sides && options.scale.empty() && options.crop.empty()) {
      throw CLI::RequiredError("--width, --height, --scale or --crop");
    }
  });
}

ResizeRequest resizeRequestOf(const ResizeOptions& options) {
  ResizeRequest request;
  request.width = parsePixels(options.width).value_or(0);
  request.height = parsePixels(options.height).value_or(0);
  request.scale = parseScale(options.scale);
  request.crop = parseArea(options.crop);
  request.filter = parseFilter(options.filter).value_or(KVTI_FILTER_LANCZOS3);
  const std::uint32_t processors = std::clamp(std::thread::hardware_concurrency(), 1U, kMostThreads);
  request.threads = parseThreads(options.threads).value_or(processors);
  return request;
}

}  // namespace kvtile
