// The command line of kvtile. Exit status: 0 done, 1 not done for a reason told on stderr, 2 wrong usage.
#include <kvtileimage/KvTileImage.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <cstdio>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "errors.h"
#include "resize_options.h"
#include "sharing.h"
#include "system.h"
#include "tone_options.h"

namespace {

using kvtile::parsePlacement;
using kvtile::parseSize;
using kvtile::Placement;
using kvtile::Request;
using kvtile::TransformRequest;
using kvtile::Turn;
using kvtile::withMinus;

constexpr int kDone = 0;
constexpr int kNotDone = 1;
constexpr int kWrongUsage = 2;

// Of the commands that turn.
constexpr char kTurnedStorage[] =
    "\n\n--storage file is for the picture as it is read: its turned copy follows the budget.";

struct Options {
  std::string angle;
  std::string direction;
  std::string budget;
  std::string storage;
  std::string input;
  std::string output;
  std::string identifier;
  std::vector<std::string> files;
  kvtile::ToneRequest tone;
  kvtile::ResizeOptions resize;
  bool force = false;
  bool untilStopped = false;
  bool widenTo8Bit = false;
  bool verbose = false;
  bool quiet = false;
  bool stats = false;
};

std::string checkAngle(std::string& text) {
  if (Turn::parseDegrees(withMinus(text))) {
    return {};
  }
  return "'" + withMinus(text) + "' is no angle: allowed are whole multiples of 90, such as 90, 180, 270 and -90";
}

std::string checkSize(std::string& text) {
  const auto size = parseSize(text);
  if (size && *size > 0) {
    return {};
  }
  return "'" + withMinus(text) + "' is no size: allowed are numbers of bytes, or such as 512M and 12G";
}

std::string checkStorage(std::string& text) {
  if (parsePlacement(text)) {
    return {};
  }
  return "'" + withMinus(text) + "' is no storage: allowed are auto, memory and file";
}

std::string checkDirection(std::string& text) {
  if (text == "horizontal" || text == "vertical") {
    return {};
  }
  return "'" + withMinus(text) + "' is no direction: allowed are horizontal and vertical";
}

void addMessageOptions(CLI::App& app, Options& options) {
  app.add_flag("-q,--quiet", options.quiet, "Show errors only: no progress bar and no notes");
  app.add_flag("-v,--verbose", options.verbose, "Show what the library and the codecs report");
}

void addStorageOptions(CLI::App& app, Options& options) {
  app.add_option("--budget", options.budget,
                 "Heap budget, for example 12G (initially 1G); pixels in memory need 8 times their bytes")
      ->type_name("SIZE")
      ->check(CLI::Validator(checkSize, ""));
  app.add_option("--storage", options.storage,
                 "Where pixels are kept: auto (memory within the budget, else files), memory or file")
      ->type_name("PLACE")
      ->check(CLI::Validator(checkStorage, ""));
}

void addForceAndWidening(CLI::App& app, Options& options, const char* whatForceDoes) {
  app.add_flag("-f,--force", options.force, whatForceDoes);
  app.add_flag("--to-8bit", options.widenTo8Bit, "Widen samples of 1, 2 and 4 bits to 8 bits");
}

void addTransformOptions(CLI::App& app, Options& options) {
  addStorageOptions(app, options);
  addForceAndWidening(app, options, "Replace OUT if it exists");
  app.add_flag("--stats", options.stats, "Show where the pixels were kept and what memory and time it took");
  addMessageOptions(app, options);
}

void addFiles(CLI::App& app, Options& options) {
  app.add_option("IN", options.input, "The PNG or TIFF file to read")->type_name("")->required();
  app.add_option("OUT", options.output, "The file to make: .png, .tif or .tiff")->type_name("")->required();
}

void addInfo(CLI::App& app, Options& options) {
  CLI::App* info = app.add_subcommand("info", "Show what files say about their pictures");
  info->add_option("FILE", options.files, "PNG and TIFF files")->type_name("")->required();
  addMessageOptions(*info, options);
  info->footer("Example:\n  kvtile info scan.tif photo.png\n\nOnly the headers are read.");
}

void addConvert(CLI::App& app, Options& options) {
  CLI::App* convert = app.add_subcommand("convert", "Store a picture in another file or format");
  addFiles(*convert, options);
  addTransformOptions(*convert, options);
  convert->footer(
      "Examples:\n"
      "  kvtile convert scan.tif scan.png\n"
      "  kvtile convert --budget 12G mosaic.png mosaic.tif\n\n"
      "A TIFF that is stored turned or mirrored (orientation tag) comes out upright.");
}

void addRotate(CLI::App& app, Options& options) {
  CLI::App* rotate = app.add_subcommand("rotate", "Turn a picture clockwise by a multiple of 90 degrees");
  rotate->add_option("ANGLE", options.angle, "Degrees clockwise: 90, 180, 270, or negative for counter-clockwise")
      ->type_name("")
      ->required()
      ->check(CLI::Validator(checkAngle, ""));
  addFiles(*rotate, options);
  addTransformOptions(*rotate, options);
  rotate->footer(std::string("Examples:\n"
                             "  kvtile rotate 90 scan.tif upright.tif\n"
                             "  kvtile rotate -90 photo.png left.png\n"
                             "  kvtile rotate --force 180 photo.png photo.png") +
                 kTurnedStorage);
}

void addMirror(CLI::App& app, Options& options) {
  CLI::App* mirror = app.add_subcommand("mirror", "Exchange left and right, or top and bottom");
  mirror
      ->add_option("DIRECTION", options.direction,
                   "horizontal (left and right change places) or vertical (top and bottom do)")
      ->type_name("")
      ->required()
      ->check(CLI::Validator(checkDirection, ""));
  addFiles(*mirror, options);
  addTransformOptions(*mirror, options);
  mirror->footer(std::string("Examples:\n"
                             "  kvtile mirror horizontal photo.png mirrored.png\n"
                             "  kvtile mirror vertical scan.tif flipped.tif") +
                 kTurnedStorage);
}

void addResize(CLI::App& app, Options& options) {
  CLI::App* resize = app.add_subcommand("resize", "Give a picture, or a part of it, another size");
  kvtile::addResizeOptions(*resize, options.resize);
  addFiles(*resize, options);
  addTransformOptions(*resize, options);
  resize->footer(
      "Examples:\n"
      "  kvtile resize --width 800 mosaic.tif preview.png\n"
      "  kvtile resize --scale 16 --filter bicubic photo.png poster.tif\n"
      "  kvtile resize --crop 2000,1500,640,480 --scale 4 scan.tif detail.png\n\n"
      "Filters: lanczos3 and catmull-rom are the sharpest and leave faint ripples beside edges, bicubic is softer "
      "with\n"
      "hardly any, bilinear and bspline have none, and bspline is the softest. box takes plain means and, enlarging,\n"
      "repeats pixels. No filter reaches over more than 100 pixels: shrink further in two steps. A part without "
      "another\n"
      "size is copied as it is. Pictures with a palette come out in colours. Each thread holds some rows in memory. "
      "The\n"
      "resolution (dpi) stays as it is, so that the picture is printed larger or smaller.");
}

void addTone(CLI::App& app, Options& options) {
  CLI::App* tone = app.add_subcommand("tone", "Change how bright tones are, by curves");
  kvtile::addToneOptions(*tone, "Change sample N of each pixel only, the first is 0; may be repeated");
  addFiles(*tone, options);
  addTransformOptions(*tone, options);
  tone->callback([tone, &options] {
    options.tone = kvtile::toneRequestOf(*tone);
    if (!options.tone.changes()) {
      throw CLI::RequiredError("--gamma, --brightness, --contrast, --invert, --threshold or --curve");
    }
  });
  tone->footer(
      "Examples:\n"
      "  kvtile tone --gamma 1.8 --contrast 0.2 dark.tif light.tif\n"
      "  kvtile tone --brightness -0.2 --channel 2 photo.png less-blue.png\n"
      "  kvtile tone --curve points.txt scan.tif better.tif\n\n"
      "Curves are applied in the order in which they are given, and any of them may be repeated. Contrast, "
      "brightness,\n"
      "gamma and inversion that follow each other in this order are calculated together and rounded once.\n"
      "Without --channel all samples that carry colour change and alpha does not. Pictures with a palette get other\n"
      "colours in it: channels 0, 1 and 2 are red, green and blue. Of separated inks the amounts change.\n\n"
      "A file for --curve holds control points, one in a line, as fractions of the highest value:\n"
      "  0    0      # black stays\n"
      "  0.3  0.5    # input and output; straight lines lie between the points\n"
      "  1    1\n"
      "or a table of all outputs: 256 bytes, or 65536 little-endian 16-bit numbers for pictures of 16 bits.");
}

void addHistogram(CLI::App& app, Options& options) {
  CLI::App* histogram = app.add_subcommand("histogram", "Draw how often each tone occurs in a picture");
  kvtile::addToneOptions(*histogram, "Count, and change, sample N of each pixel only; may be repeated");
  addFiles(*histogram, options);
  addTransformOptions(*histogram, options);
  histogram->callback([histogram, &options] { options.tone = kvtile::toneRequestOf(*histogram); });
  histogram->footer(
      "Examples:\n"
      "  kvtile histogram scan.tif tones.png\n"
      "  kvtile histogram --gamma 1.8 --contrast 0.2 scan.tif before-and-after.png\n\n"
      "OUT becomes a chart; IN stays as it is. With the options of 'kvtile tone' it shows the curve too, and how "
      "often\n"
      "tones would occur then. Where red, green and blue overlap their light adds up. Alpha is not counted unless\n"
      "--channel names it. Bars that stand out alone are cut off at the top, which is marked.");
}

void addIdentifier(CLI::App& app, Options& options) {
  app.add_option("ID", options.identifier, "The identifier that the programs agree on, such as scan or scans/page-1")
      ->type_name("")
      ->required();
}

void addShare(CLI::App& app, Options& options) {
  CLI::App* share = app.add_subcommand("share", "Let other programs have a picture while this one runs");
  addIdentifier(*share, options);
  share->add_option("FILE", options.input, "The PNG or TIFF file to read")->type_name("")->required();
  share->add_flag("--until-stopped", options.untilStopped,
                  "Share until the program is ended (Ctrl-C, kill) instead of until Enter");
  addForceAndWidening(*share, options, "Replace the pixels of an image of the same size and samples that others hold");
  addStorageOptions(*share, options);
  addMessageOptions(*share, options);
  share->footer(
      "Examples:\n"
      "  kvtile share scan scan.tif\n"
      "  kvtile share --until-stopped scans/page-1 page1.png &\n\n"
      "A line on standard output tells when the picture is complete. It is shared until Enter is pressed or standard\n"
      "input ends. Give --until-stopped in scripts and in the background, where the input may have ended already.\n"
      "Other programs of the same user attach by the identifier, see and change the same pixels, and may hold them\n"
      "longer than this one: the image goes with the last of them.\n\n"
      "A shared image has size, samples and pixels only. Pictures come upright, palettes as colours, grey with black\n"
      "as zero, and alpha straight. The resolution (dpi), colour profiles and the meaning of other samples, such as\n"
      "inks, are not shared; a note tells of each. The pixels are kept in files: --storage and --budget are for the\n"
      "picture as it is read, where it is changed on its way.");
}

void addAttach(CLI::App& app, Options& options) {
  CLI::App* attach = app.add_subcommand("attach", "Make a file of a picture that is shared");
  addIdentifier(*attach, options);
  attach->add_option("OUT", options.output, "The file to make: .png, .tif or .tiff")->type_name("")->required();
  addForceAndWidening(*attach, options, "Replace OUT if it exists");
  addMessageOptions(*attach, options);
  attach->footer(
      "Examples:\n"
      "  kvtile attach scan copy.png\n"
      "  kvtile attach --force scans/page-1 page1.tif\n\n"
      "The pixels are taken as they are now, even if another program is still writing them. One or two samples are\n"
      "taken for grey and alpha, three or four for RGB and alpha, more for RGB and samples without meaning, which "
      "only\n"
      "TIFF can hold. The file gets no resolution (dpi) and no colour profile.\n\n"
      "A shared image goes with its last holder. If all others let go while this command works it is the last one, "
      "and\n"
      "a note says so. What a program that was killed has left is as a rule removed instead of attached to.");
}

void addShared(CLI::App& app, Options& options) {
  CLI::App* shared = app.add_subcommand("shared", "List the pictures that are shared");
  addMessageOptions(*shared, options);
  shared->footer(
      "Example:\n"
      "  kvtile shared\n\n"
      "Lists what the programs of this user share, and whether any of them holds it. What is not held was left by\n"
      "programs that were killed; it is removed as soon as another program starts to use the library. Listing changes\n"
      "nothing.");
}

// CLI11's sentence or a better one, and where to read on.
std::string usageText(const CLI::App& app, const CLI::ParseError& error) {
  std::string text = withMinus(error.what());
  const std::vector<std::string> leftOver = app.remaining();
  const bool noCommand = app.get_subcommands().empty();
  if (noCommand && !leftOver.empty() && leftOver.front()[0] != '-') {
    text = "'" + withMinus(leftOver.front()) +
           "' is no command: there are info, convert, rotate, mirror, resize, tone, histogram, share, attach " +
           "and shared";
  } else if (noCommand && !leftOver.empty()) {
    text = "there is no option " + leftOver.front();
  }
  if (text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])) != 0) {
    text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
  }
  const std::string command = noCommand ? "" : app.get_subcommands().front()->get_name() + " ";
  return text + "; see 'kvtile " + command + "--help'";
}

std::string versionText() {
  const char* library = nullptr;
  KvTileImage_VersionString(&library);
  return std::string("kvtile " KVTILE_VERSION " (KvTileImage ") + library + ")";
}

Request makeRequest(const Options& options) {
  Request request;
  request.input = withMinus(options.input);
  request.output = withMinus(options.output);
  request.tone = options.tone;
  request.budget = parseSize(options.budget).value_or(0);
  request.placement = parsePlacement(options.storage).value_or(Placement::Automatic);
  request.force = options.force;
  request.widenTo8Bit = options.widenTo8Bit;
  request.showStats = options.stats;
  return request;
}

// What a message is about that the command has no words of its own for.
std::string subjectOf(const Options& options) {
  for (const std::string& subject : {options.output, options.identifier}) {
    if (!subject.empty()) {
      return withMinus(subject);
    }
  }
  return options.files.empty() ? "shared" : "info";
}

// Runs `work`, which returns an exit status, and turns what ends it early into one line and a status.
template <typename Work>
int runReporting(const Options& options, kvtile::Console& console, const Work& work) {
  const std::string subject = subjectOf(options);
  try {
    return work();
  } catch (const kvtile::WrongUsage& usage) {
    console.error(usage.what());
    return kWrongUsage;
  } catch (const kvtile::Failure& failure) {
    // A transfer that was cut off by the request to stop looks like a failed one.
    if (!kvtile::system::stopRequested()) {
      console.error(failure.what());
      return kNotDone;
    }
  } catch (const kvtile::Interrupted&) {
    // Told below.
  } catch (const std::bad_alloc&) {
    console.error(subject + ": there is not enough memory; close other programs or use a machine with more memory");
    return kNotDone;
  } catch (const std::exception& exception) {
    console.error(subject + ": unexpected failure (" + exception.what() + "); please report it");
    return kNotDone;
  }
  console.error(subject + ": interrupted before it was complete; run the command again to make it");
  return kNotDone;
}

// What the command line is made of, with the values in `options`.
void describeCommandLine(CLI::App& app, Options& options) {
  app.require_subcommand(1);
  app.get_formatter()->column_width(28);
  app.get_formatter()->label("REQUIRED", "");
  app.get_formatter()->label("SUBCOMMAND", "COMMAND ...");
  app.get_formatter()->label("Positionals", "Arguments");
  app.set_version_flag("--version", versionText(), "Show the version of the program and of the library");
  addTransformOptions(app, options);
  addInfo(app, options);
  addConvert(app, options);
  addRotate(app, options);
  addMirror(app, options);
  addResize(app, options);
  addTone(app, options);
  addHistogram(app, options);
  addShare(app, options);
  addAttach(app, options);
  addShared(app, options);
  for (CLI::App* command : app.get_subcommands({})) {
    command->group("Commands");
  }
  app.footer(
      "Examples:\n"
      "  kvtile info scan.tif\n"
      "  kvtile rotate 90 scan.tif upright.tif\n"
      "  kvtile mirror horizontal photo.png mirrored.png\n"
      "  kvtile resize --width 800 scan.tif preview.png\n"
      "  kvtile tone --gamma 1.8 dark.tif light.tif\n"
      "  kvtile histogram photo.png tones.png\n"
      "  kvtile share scan scan.tif\n\n"
      "'kvtile COMMAND --help' tells more about a command.");
}

int runInfo(Options& options, kvtile::Console& console) {
  for (std::string& file : options.files) {
    file = withMinus(file);
  }
  return kvtile::showInfo(options.files, console) ? kDone : kNotDone;
}

kvtile::ShareRequest makeShareRequest(const Options& options) {
  kvtile::ShareRequest request;
  request.identifier = withMinus(options.identifier);
  request.input = withMinus(options.input);
  request.budget = parseSize(options.budget).value_or(0);
  request.placement = parsePlacement(options.storage).value_or(Placement::Automatic);
  request.force = options.force;
  request.widenTo8Bit = options.widenTo8Bit;
  request.untilStopped = options.untilStopped;
  return request;
}

kvtile::AttachRequest makeAttachRequest(const Options& options) {
  kvtile::AttachRequest request;
  request.identifier = withMinus(options.identifier);
  request.output = withMinus(options.output);
  request.force = options.force;
  request.widenTo8Bit = options.widenTo8Bit;
  return request;
}

// The turn that the command stands for, if any.
Turn turnOf(const std::string& command, const Options& options) {
  if (command == "rotate") {
    return Turn::parseDegrees(withMinus(options.angle)).value_or(Turn());
  }
  if (command == "mirror") {
    return options.direction == "horizontal" ? Turn::leftRightMirror() : Turn::topBottomMirror();
  }
  return Turn();
}

TransformRequest makeTransform(const std::string& command, const Options& options) {
  TransformRequest request;
  static_cast<Request&>(request) = makeRequest(options);
  request.turn = turnOf(command, options);
  request.resize = kvtile::resizeRequestOf(options.resize);
  return request;
}

int run(const std::string& command, Options& options, kvtile::Console& console) {
  if (command == "info") {
    return runInfo(options, console);
  }
  if (command == "histogram") {
    kvtile::drawHistogram(makeRequest(options), console);
  } else if (command == "share") {
    kvtile::sharePicture(makeShareRequest(options), console);
  } else if (command == "attach") {
    kvtile::attachPicture(makeAttachRequest(options), console);
  } else if (command == "shared") {
    kvtile::listShared(console);
  } else {
    kvtile::transform(makeTransform(command, options), console);
  }
  return kDone;
}

}  // namespace

int main(int count, char** values) {
  Options options;
  CLI::App app("Turns, mirrors, resizes, tones, converts and shares large PNG and TIFF pictures.", "kvtile");
  describeCommandLine(app, options);
  if (count <= 1) {
    std::fputs(app.help().c_str(), stderr);
    return kWrongUsage;
  }
  try {
    app.parse(kvtile::collectArguments(count, values));
  } catch (const CLI::Success& success) {
    return app.exit(success);
  } catch (const CLI::ParseError& error) {
    kvtile::Console(false, true).error(usageText(app, error));
    return kWrongUsage;
  }

  const std::string command = app.get_subcommands().front()->get_name();
  kvtile::Console console(options.verbose, options.quiet);
  kvtile::system::catchStopRequests();
  return runReporting(options, console, [&options, &console, &command] { return run(command, options, console); });
}
