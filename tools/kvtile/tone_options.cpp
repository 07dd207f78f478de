#include "tone_options.h"

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "arguments.h"

namespace kvtile {
namespace {

constexpr std::uint32_t kHighestThreshold = 65535;
constexpr std::uint32_t kHighestChannel = 65534;  // pictures have up to 65535 samples a pixel

// Below it the powers of the highest values are beyond double precision.
constexpr double kSmallestGamma = 0.02;

// Of brightness and contrast.
std::optional<double> parseAmount(const std::string& text) {
  const auto number = parseNumber(text);
  return number && *number >= -1 && *number <= 1 ? number : std::nullopt;
}

std::optional<double> parseGamma(const std::string& text) {
  const auto number = parseNumber(text);
  return number && *number >= kSmallestGamma ? number : std::nullopt;
}

std::string refusal(const std::string& text, const char* kind, const char* allowed) {
  return "'" + withMinus(text) + "' is no " + kind + ": allowed are " + allowed;
}

std::string checkGamma(std::string& text) {
  return parseGamma(text) ? "" : refusal(text, "gamma", "numbers from 0.02 on, such as 2.2");
}

std::string checkBrightness(std::string& text) {
  return parseAmount(text) ? "" : refusal(text, "brightness", "numbers from -1 to 1, such as 0.25");
}

std::string checkContrast(std::string& text) {
  return parseAmount(text) ? "" : refusal(text, "contrast", "numbers from -1 to 1, such as 0.25");
}

std::string checkThreshold(std::string& text) {
  return parseWhole(text, kHighestThreshold) ? ""
                                             : refusal(text, "threshold", "0 to 255, or 0 to 65535 for 16-bit samples");
}

std::string checkChannel(std::string& text) {
  return parseWhole(text, kHighestChannel) ? "" : refusal(text, "channel", "0 to 65534");
}

// Each time that the option is given it takes one value.
void addRepeated(CLI::App& command, const char* name, const std::string& help, const char* value,
                 std::string (*check)(std::string&)) {
  CLI::Option* option = command.add_option(name, help)->type_name(value)->type_size(1)->take_all();
  if (check != nullptr) {
    option->check(CLI::Validator(check, ""));
  }
}

// The step that an option with this value stands for; nothing for other options.
std::optional<ToneStep> makeStep(const std::string& option, const std::string& value) {
  using Kind = ToneStep::Kind;
  static const std::map<std::string, Kind> kKinds = {
      {"--contrast", Kind::Contrast}, {"--brightness", Kind::Brightness}, {"--gamma", Kind::Gamma},
      {"--invert", Kind::Invert},     {"--threshold", Kind::Threshold},   {"--curve", Kind::File}};
  const auto kind = kKinds.find(option);
  if (kind == kKinds.end()) {
    return std::nullopt;
  }
  ToneStep step;
  step.kind = kind->second;
  if (step.kind == Kind::File) {
    step.file = withMinus(value);
  } else if (step.kind != Kind::Invert) {
    step.amount = parseNumber(value).value_or(0);
  }
  return step;
}

}  // namespace

void addToneOptions(CLI::App& command, const std::string& channelHelp) {
  addRepeated(command, "--gamma", "Brighten (above 1) or darken (below 1); black and white stay", "G", checkGamma);
  addRepeated(command, "--brightness", "Multiply tones by 1 + B, with B from -1 to 1", "B", checkBrightness);
  addRepeated(command, "--contrast", "Multiply distances from the middle by 1 + C, with C from -1 to 1", "C",
              checkContrast);
  const std::string invertHelp = "Exchange dark and light";
  command.add_flag("--invert", invertHelp)->take_all()->disable_flag_override();
  addRepeated(command, "--threshold", "Make tones from T on white and those below it black", "T", checkThreshold);
  addRepeated(command, "--curve", "Take the curve from a file: control points or a table", "FILE", nullptr);
  addRepeated(command, "--channel", channelHelp, "N", checkChannel);
}

ToneRequest toneRequestOf(const CLI::App& command) {
  ToneRequest request;
  std::map<const CLI::Option*, std::size_t> taken;  // values of each option so far
  for (const CLI::Option* option : command.parse_order()) {
    const std::string& value = option->results()[taken[option]++];
    const std::string name = option->get_name();
    if (name == "--channel") {
      request.channels.push_back(parseWhole(value, kHighestChannel).value_or(0));
    } else if (auto step = makeStep(name, value)) {
      request.steps.push_back(std::move(*step));
    }
  }
  return request;
}

}  // namespace kvtile
