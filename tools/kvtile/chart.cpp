#include "chart.h"

#include <cairo.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <numeric>
#include <string_view>

#include "text.h"

namespace kvtile {
namespace {

// In pixels.
constexpr double kWidth = 980;
constexpr double kMargin = 28;
constexpr double kPlotLeft = 84;
constexpr double kPlotWidth = 512;  // two for each bar
constexpr double kColumnLeft = kPlotLeft + kPlotWidth + 40;
constexpr double kColumnRight = kWidth - kMargin;
constexpr double kTitleHeight = 76;
constexpr double kHeadingHeight = 40;  // above a plot
constexpr double kAxisHeight = 60;     // below it
constexpr double kSmallestPlot = 260;
constexpr double kSmallestCurve = 140;
constexpr double kCurveGap = 34;  // between the figures and the curve
constexpr double kLineHeight = 19;
constexpr double kTextSize = 12;

constexpr std::size_t kBars = 256;
constexpr double kStandsOut = 3;     // times as high as its neighbours
constexpr double kWorthCutting = 2;  // times as high as the rest
constexpr std::size_t kFewBars = 8;  // are no hill

struct Colour {
  double red;
  double green;
  double blue;
};
constexpr Colour kPaper = {0.99, 0.99, 0.985};
constexpr Colour kPlotGround = {1, 1, 1};
constexpr Colour kText = {0.13, 0.14, 0.16};
constexpr Colour kFaintText = {0.38, 0.40, 0.43};
constexpr Colour kFrame = {0.62, 0.64, 0.67};
constexpr Colour kGrid = {0.90, 0.91, 0.92};

// Areas of light add up; all three make a light grey.
constexpr Colour kRedArea = {0.70, 0.06, 0.06};
constexpr Colour kGreenArea = {0.06, 0.70, 0.06};
constexpr Colour kBlueArea = {0.06, 0.06, 0.70};
constexpr Colour kGreyArea = {0.52, 0.54, 0.57};

enum class Align { Left, Centre, Right };

struct Box {
  double left;
  double top;
  double width;
  double height;

  double right() const { return left + width; }
  double bottom() const { return top + height; }
};

struct Destroy {
  void operator()(cairo_t* cairo) const noexcept { cairo_destroy(cairo); }
  void operator()(cairo_surface_t* surface) const noexcept { cairo_surface_destroy(surface); }
  void operator()(cairo_font_options_t* options) const noexcept { cairo_font_options_destroy(options); }
};

// Where the chart is drawn. Cairo remembers what goes wrong; finish() tells.
class Canvas {
 public:
  Canvas(int width, int height)
      : surface_(cairo_image_surface_create(CAIRO_FORMAT_RGB24, width, height)), cairo_(cairo_create(surface_.get())) {
    // Whatever the screen of this machine would like: neither colours at the edges of letters nor moved ones.
    const std::unique_ptr<cairo_font_options_t, Destroy> options(cairo_font_options_create());
    cairo_font_options_set_antialias(options.get(), CAIRO_ANTIALIAS_GRAY);
    cairo_font_options_set_hint_style(options.get(), CAIRO_HINT_STYLE_SLIGHT);
    cairo_font_options_set_hint_metrics(options.get(), CAIRO_HINT_METRICS_OFF);
    cairo_set_font_options(cairo_.get(), options.get());
    use(kPaper);
    cairo_paint(cairo_.get());
  }

  cairo_t* cairo() const { return cairo_.get(); }

  void use(const Colour& colour, double opacity = 1) const {
    cairo_set_source_rgba(cairo_.get(), colour.red, colour.green, colour.blue, opacity);
  }

  void font(double size, bool bold = false) const {
    cairo_select_font_face(cairo_.get(), "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cairo_.get(), size);
  }

  // `text` in UTF-8, its baseline at y.
  void text(double x, double y, const std::string& text, Align align = Align::Left) const {
    const double width = widthOf(text);
    const double shift = align == Align::Left ? 0 : align == Align::Centre ? width / 2 : width;
    cairo_move_to(cairo_.get(), x - shift, y);
    cairo_show_text(cairo_.get(), text.c_str());
  }

  double widthOf(const std::string& text) const {
    cairo_text_extents_t extents = {};
    cairo_text_extents(cairo_.get(), text.c_str(), &extents);
    return extents.x_advance;
  }

  // As much of the text as fits `width`, with an ellipsis if it is not all.
  std::string fitted(const std::string& text, double width) const {
    if (widthOf(text) <= width) {
      return text;
    }
    std::string kept;
    for (std::string_view rest = text; !rest.empty();) {
      const std::size_t bytes = characterBytes(rest);
      std::string longer = kept + std::string(rest.substr(0, bytes));
      if (widthOf(longer + "\u2026") > width) {
        break;
      }
      kept = std::move(longer);
      rest.remove_prefix(bytes);
    }
    return kept + "\u2026";
  }

  void line(double x1, double y1, double x2, double y2) const {
    cairo_set_line_width(cairo_.get(), 1);
    cairo_move_to(cairo_.get(), x1, y1);
    cairo_line_to(cairo_.get(), x2, y2);
    cairo_stroke(cairo_.get());
  }

  // The lines lie on whole pixels just outside the box.
  void frame(const Box& box) const {
    cairo_set_line_width(cairo_.get(), 1);
    cairo_rectangle(cairo_.get(), box.left - 0.5, box.top - 0.5, box.width + 1, box.height + 1);
    cairo_stroke(cairo_.get());
  }

  // The pixels, row by row.
  std::vector<std::uint32_t> finish() const {
    cairo_surface_flush(surface_.get());
    if (cairo_status(cairo_.get()) != CAIRO_STATUS_SUCCESS) {
      throw std::bad_alloc();
    }
    const auto width = static_cast<std::size_t>(cairo_image_surface_get_width(surface_.get()));
    const auto height = static_cast<std::size_t>(cairo_image_surface_get_height(surface_.get()));
    const auto stride = static_cast<std::size_t>(cairo_image_surface_get_stride(surface_.get()));
    const unsigned char* data = cairo_image_surface_get_data(surface_.get());
    std::vector<std::uint32_t> pixels(width * height);
    for (std::size_t y = 0; y < height; ++y) {
      std::memcpy(&pixels[y * width], data + y * stride, width * sizeof(std::uint32_t));
    }
    return pixels;
  }

 private:
  std::unique_ptr<cairo_surface_t, Destroy> surface_;
  std::unique_ptr<cairo_t, Destroy> cairo_;
};

std::uint32_t highestTone(const Histogram& histogram) { return (1U << histogram.bits) - 1; }

Colour areaColour(Light light) {
  switch (light) {
    case Light::Red:
      return kRedArea;
    case Light::Green:
      return kGreenArea;
    case Light::Blue:
      return kBlueArea;
    default:
      return kGreyArea;
  }
}

std::string channelName(const ChannelHistogram& channel) {
  switch (channel.light) {
    case Light::Grey:
      return "grey";
    case Light::Red:
      return "red";
    case Light::Green:
      return "green";
    case Light::Blue:
      return "blue";
    default:
      return std::to_string(channel.channel);
  }
}

// A pattern of dashes and a grey for each line that stands for no colour.
void styleLine(const Canvas& canvas, std::size_t number) {
  constexpr std::array<std::array<double, 4>, 4> kDashes = {{{1, 0, 1, 0}, {6, 3, 6, 3}, {2, 2, 2, 2}, {8, 3, 2, 3}}};
  constexpr std::array<double, 2> kGreys = {0.1, 0.5};
  const std::array<double, 4>& dashes = kDashes[number % kDashes.size()];
  cairo_set_dash(canvas.cairo(), dashes.data(), static_cast<int>(dashes.size()), 0);
  const double grey = kGreys[(number + number / kDashes.size()) % kGreys.size()];
  canvas.use({grey, grey, grey});
  cairo_set_line_width(canvas.cairo(), 1.3);
}

std::string formatted(const char* format, double value) {
  std::array<char, 32> text = {};
  std::snprintf(text.data(), text.size(), format, value);
  return text.data();
}

// Parts of a whole, 0 and all of it told from what is nearly that.
std::string percent(double part) {
  const double value = part * 100;
  if (part <= 0 || part >= 1) {
    return part <= 0 ? "0 %" : "100 %";
  }
  if (value < 0.01) {
    return "<0.01 %";
  }
  if (value > 99.9) {
    return ">99.9 %";
  }
  return formatted(value < 10 ? "%.2f %%" : "%.1f %%", value);
}

// The distance of ticks that divides `range` into three to seven parts: 1, 2 or 5 times a power of ten.
double tickStep(double range) {
  const double power = std::pow(10, std::floor(std::log10(range / 3)));
  const double steps = range / 3 / power;
  return power * (steps >= 5 ? 5 : steps >= 2 ? 2 : 1);
}

// One histogram in its box.
class Plot {
 public:
  Plot(const Canvas& canvas, const Histogram& histogram, const Box& box)
      : canvas_(canvas), histogram_(histogram), box_(box) {
    for (const ChannelHistogram& channel : histogram.channels) {
      heights_.push_back(barHeights(channel));
    }
    // A little room above what is not cut.
    top_ = heightLimit(heights_) * 1.05;
  }

  void draw() const {
    canvas_.use(kPlotGround);
    cairo_rectangle(canvas_.cairo(), box_.left, box_.top, box_.width, box_.height);
    cairo_fill(canvas_.cairo());
    drawShares();
    drawAreas();
    drawLines();
    canvas_.use(kFrame);
    canvas_.frame(box_);
    drawTones();
    drawCuts();
  }

 private:
  double highest() const {
    double result = 0;
    for (const auto& bars : heights_) {
      result = std::max(result, *std::max_element(bars.begin(), bars.end()));
    }
    return result;
  }

  bool isCut(std::size_t bar) const {
    return std::any_of(heights_.begin(), heights_.end(), [&](const auto& bars) { return bars[bar] > top_; });
  }

  double xOf(std::size_t bar) const { return box_.left + static_cast<double>(bar) * box_.width / kBars; }
  double yOf(double height) const { return box_.bottom() - std::min(1.0, height / top_) * box_.height; }

  void drawShares() const {
    const double step = tickStep(top_ * 100);
    canvas_.font(kTextSize);
    canvas_.use(kFaintText);
    canvas_.text(box_.left - 8, box_.top - 18, "samples", Align::Right);
    for (int tick = 0; tick * step <= top_ * 100; ++tick) {
      const double share = tick * step;
      const double y = std::round(yOf(share / 100)) + 0.5;
      if (share > 0) {
        canvas_.use(kGrid);
        canvas_.line(box_.left, y, box_.right(), y);
      }
      canvas_.use(kFaintText);
      canvas_.text(box_.left - 8, y + 4, share > 0 ? formatted("%.4g %%", share) : "0", Align::Right);
    }
  }

  void outline(const std::vector<double>& bars) const {
    for (std::size_t bar = 0; bar < kBars; ++bar) {
      cairo_line_to(canvas_.cairo(), xOf(bar), yOf(bars[bar]));
      cairo_line_to(canvas_.cairo(), xOf(bar + 1), yOf(bars[bar]));
    }
  }

  // In a group of their own, where light adds up from black.
  void drawAreas() const {
    cairo_t* cairo = canvas_.cairo();
    cairo_push_group(cairo);
    cairo_set_operator(cairo, CAIRO_OPERATOR_ADD);
    for (std::size_t i = 0; i < heights_.size(); ++i) {
      if (histogram_.channels[i].light == Light::Other) {
        continue;
      }
      cairo_move_to(cairo, box_.left, box_.bottom());
      outline(heights_[i]);
      cairo_line_to(cairo, box_.right(), box_.bottom());
      cairo_close_path(cairo);
      canvas_.use(areaColour(histogram_.channels[i].light));
      cairo_fill(cairo);
    }
    cairo_pop_group_to_source(cairo);
    cairo_paint(cairo);
  }

  void drawLines() const {
    cairo_t* cairo = canvas_.cairo();
    cairo_save(cairo);
    cairo_rectangle(cairo, box_.left, box_.top, box_.width, box_.height);
    cairo_clip(cairo);
    std::size_t number = 0;
    for (std::size_t i = 0; i < heights_.size(); ++i) {
      if (histogram_.channels[i].light == Light::Other) {
        styleLine(canvas_, number++);
        outline(heights_[i]);
        cairo_stroke(cairo);
      }
    }
    cairo_restore(cairo);
  }

  void drawTones() const {
    const std::uint32_t last = highestTone(histogram_);
    canvas_.font(kTextSize);
    for (const std::uint32_t quarter : {0U, 1U, 2U, 3U, 4U}) {
      const std::uint32_t tone = quarter == 4 ? last : (last + 1) / 4 * quarter;
      const double x = box_.left + (tone + 0.5) * box_.width / (last + 1.0);
      canvas_.use(kFrame);
      canvas_.line(std::floor(x) + 0.5, box_.bottom() + 1, std::floor(x) + 0.5, box_.bottom() + 6);
      canvas_.use(kFaintText);
      canvas_.text(x, box_.bottom() + 20, std::to_string(tone), Align::Centre);
    }
    canvas_.text(box_.left + box_.width / 2, box_.bottom() + 38,
                 histogram_.bits == 8 ? "tone" : "tone, 256 in each bar", Align::Centre);
  }

  // An arrowhead over each run of bars that go on beyond the top.
  void drawCuts() const {
    bool any = false;
    canvas_.use(kText);
    for (std::size_t bar = 0; bar < kBars; ++bar) {
      const std::size_t first = bar;
      while (bar < kBars && isCut(bar)) {
        ++bar;
      }
      if (bar > first) {
        drawArrowhead((xOf(first) + xOf(bar)) / 2, box_.top - 3);
        any = true;
      }
    }
    if (any) {
      drawCutText();
    }
  }

  void drawArrowhead(double x, double bottom) const {
    cairo_move_to(canvas_.cairo(), x, bottom - 8);
    cairo_line_to(canvas_.cairo(), x + 5, bottom);
    cairo_line_to(canvas_.cairo(), x - 5, bottom);
    cairo_close_path(canvas_.cairo());
    cairo_fill(canvas_.cairo());
  }

  void drawCutText() const {
    const std::string text = "cut off, up to " + percent(highest());
    canvas_.font(kTextSize);
    canvas_.use(kText);
    const double y = box_.top - 18;
    canvas_.text(box_.right(), y, text, Align::Right);
    drawArrowhead(box_.right() - canvas_.widthOf(text) - 12, y);
  }

  const Canvas& canvas_;
  const Histogram& histogram_;
  Box box_;
  std::vector<std::vector<double>> heights_;
  double top_ = 0;  // the height that the upper edge stands for
};

double tableHeight(const Histogram& histogram) {
  return static_cast<double>(histogram.channels.size() + 1) * kLineHeight;
}

// The channel's name after a sample of how it is drawn.
void drawKey(const Canvas& canvas, const ChannelHistogram& channel, std::size_t lineNumber, double y) {
  constexpr double kLine = 28;
  constexpr double kSquare = 10;
  constexpr double kGap = 6;
  cairo_t* cairo = canvas.cairo();
  if (channel.light != Light::Other) {
    canvas.use(areaColour(channel.light));
    cairo_rectangle(cairo, kColumnLeft, y - 9, kSquare, kSquare);
    cairo_fill(cairo);
  } else {
    cairo_save(cairo);
    styleLine(canvas, lineNumber);
    cairo_move_to(cairo, kColumnLeft, y - 4);
    cairo_line_to(cairo, kColumnLeft + kLine, y - 4);
    cairo_stroke(cairo);
    cairo_restore(cairo);
  }
  canvas.use(kText);
  canvas.text(kColumnLeft + (channel.light == Light::Other ? kLine : kSquare) + kGap, y, channelName(channel));
}

// The figures of each channel beside the plot that begins at `top`.
void drawTable(const Canvas& canvas, const Histogram& histogram, double top) {
  constexpr std::array<double, 5> kColumns = {kColumnRight - 204, kColumnRight - 154, kColumnRight - 110,
                                              kColumnRight - 60, kColumnRight};
  const std::string last = std::to_string(highestTone(histogram));
  double y = top + 11;
  canvas.font(11);
  canvas.use(kFaintText);
  canvas.text(kColumnLeft, y, "channel");
  const std::array<std::string, 5> heads = {"min", "median", "max", "at 0", "at " + last};
  for (std::size_t i = 0; i < heads.size(); ++i) {
    canvas.text(kColumns[i], y, heads[i], Align::Right);
  }
  std::size_t lines = 0;
  for (const ChannelHistogram& channel : histogram.channels) {
    y += kLineHeight;
    drawKey(canvas, channel, lines, y);
    lines += channel.light == Light::Other ? 1 : 0;
    const ToneSummary summary = summarize(channel);
    const std::array<std::string, 5> cells = {std::to_string(summary.lowest), std::to_string(summary.median),
                                              std::to_string(summary.highest), percent(summary.partAtZero),
                                              percent(summary.partAtHighest)};
    for (std::size_t i = 0; i < cells.size(); ++i) {
      canvas.text(kColumns[i], y, cells[i], Align::Right);
    }
  }
}

void drawCurve(const Canvas& canvas, const ToneCurve& curve, const Box& box) {
  // Each tone of 8 bits, as many of 16 as can be seen.
  const std::uint32_t step = curve.bits() == 8 ? 1 : 64;
  const double scale = box.width / curve.highest();
  cairo_t* cairo = canvas.cairo();
  canvas.use(kPlotGround);
  cairo_rectangle(cairo, box.left, box.top, box.width, box.height);
  cairo_fill(cairo);
  canvas.use(kFrame);
  canvas.line(box.left, box.bottom(), box.right(), box.top);
  canvas.frame(box);
  canvas.use(kText);
  for (std::uint32_t tone = 0; tone < curve.highest(); tone += step) {
    cairo_line_to(cairo, box.left + tone * scale, box.bottom() - curve.at(tone) * scale);
  }
  cairo_line_to(cairo, box.right(), box.bottom() - curve.at(curve.highest()) * scale);
  cairo_set_line_width(cairo, 1.6);
  cairo_set_line_join(cairo, CAIRO_LINE_JOIN_ROUND);
  cairo_stroke(cairo);
  canvas.font(11);
  canvas.use(kFaintText);
  const std::string last = std::to_string(curve.highest());
  canvas.text(box.left, box.bottom() + 18, "0");
  canvas.text(box.left + box.width / 2, box.bottom() + 18, "before", Align::Centre);
  canvas.text(box.right(), box.bottom() + 18, last, Align::Right);
  canvas.text(box.left - 6, box.bottom(), "0", Align::Right);
  canvas.text(box.left - 6, box.top + box.height / 2 + 4, "after", Align::Right);
  canvas.text(box.left - 6, box.top + 9, last, Align::Right);
}

void drawTitle(const Canvas& canvas, const ChartSubject& subject) {
  canvas.font(19, true);
  canvas.use(kText);
  canvas.text(kMargin, 38, canvas.fitted(asUtf8(subject.title), kWidth - 2 * kMargin));
  canvas.font(13);
  canvas.use(kFaintText);
  canvas.text(kMargin, 60, canvas.fitted(asUtf8(subject.details), kWidth - 2 * kMargin));
}

// A histogram with its figures and, above it, what it is.
void drawPanel(const Canvas& canvas, const Histogram& histogram, const std::string& heading, const Box& box) {
  constexpr double kRoomForCutText = 170;
  canvas.font(14, true);
  canvas.use(kText);
  canvas.text(box.left, box.top - 18, canvas.fitted(asUtf8(heading), box.width - kRoomForCutText));
  Plot(canvas, histogram, box).draw();
  drawTable(canvas, histogram, box.top);
}

// Whether bar `i` is far above the four around it, or the nearest ones at the ends. One of them may be as high: a spike
// can be two bars wide.
bool standsOut(const std::vector<double>& bars, std::size_t i) {
  constexpr std::size_t kGroup = 5;
  if (bars.size() < kFewBars) {
    return true;
  }
  const std::size_t first = std::min(i < kGroup / 2 ? 0 : i - kGroup / 2, bars.size() - kGroup);
  std::vector<double> near;
  for (std::size_t j = first; j < first + kGroup; ++j) {
    if (j != i) {
      near.push_back(bars[j]);
    }
  }
  std::sort(near.rbegin(), near.rend());
  return bars[i] > kStandsOut * near[1];
}

}  // namespace

std::vector<double> barHeights(const ChannelHistogram& channel) {
  const auto total = std::accumulate(channel.counts.begin(), channel.counts.end(), std::uint64_t{0});
  const std::size_t tonesPerBar = channel.counts.size() / kBars;
  std::vector<double> heights;
  for (std::size_t bar = 0; bar < kBars; ++bar) {
    const auto first = channel.counts.begin() + static_cast<std::ptrdiff_t>(bar * tonesPerBar);
    const auto sum = std::accumulate(first, first + static_cast<std::ptrdiff_t>(tonesPerBar), std::uint64_t{0});
    heights.push_back(static_cast<double>(sum) / static_cast<double>(total));
  }
  return heights;
}

double heightLimit(const std::vector<std::vector<double>>& channels) {
  double highest = 0;
  double ordinary = 0;
  for (const std::vector<double>& bars : channels) {
    // Curves leave gaps between the tones that occur: neighbours are those that do.
    std::vector<double> occurring;
    std::copy_if(bars.begin(), bars.end(), std::back_inserter(occurring), [](double bar) { return bar > 0; });
    for (std::size_t i = 0; i < occurring.size(); ++i) {
      highest = std::max(highest, occurring[i]);
      ordinary = standsOut(occurring, i) ? ordinary : std::max(ordinary, occurring[i]);
    }
  }
  return ordinary > 0 && highest > kWorthCutting * ordinary ? ordinary : highest;
}

Chart::Chart(const ChartSubject& subject) {
  const Histogram& before = subject.histogram;
  const double curveRoom = subject.curve ? kCurveGap + kSmallestCurve : 0;
  const double plotHeight = std::max(kSmallestPlot, tableHeight(before) + curveRoom);
  const double panelHeight = kHeadingHeight + plotHeight + kAxisHeight;
  const double panels = subject.curve ? 2 : 1;
  const Canvas canvas(static_cast<int>(kWidth), static_cast<int>(kTitleHeight + panels * panelHeight));
  drawTitle(canvas, subject);
  const Box first = {kPlotLeft, kTitleHeight + kHeadingHeight, kPlotWidth, plotHeight};
  drawPanel(canvas, before, subject.curve ? "before" : "", first);
  if (subject.curve) {
    const double side = plotHeight - tableHeight(before) - kCurveGap;
    drawCurve(canvas, *subject.curve, {kColumnLeft + 46, first.bottom() - side, side, side});
    const Box second = {kPlotLeft, first.top + panelHeight, kPlotWidth, plotHeight};
    drawPanel(canvas, before.through(*subject.curve), "after " + subject.curveText, second);
  }
  pixels_ = canvas.finish();
  picture_.width = static_cast<std::uint32_t>(kWidth);
  picture_.height = static_cast<std::uint32_t>(pixels_.size() / picture_.width);
  picture_.pixels = {3, 8, SampleFormat::Unsigned};
  picture_.photometric = Photometric::Rgb;
}

std::vector<std::uint8_t> Chart::row(std::uint32_t y) const {
  std::vector<std::uint8_t> row;
  row.reserve(picture_.rowBytes());
  const auto first = pixels_.begin() + static_cast<std::ptrdiff_t>(std::size_t{y} * picture_.width);
  std::for_each(first, first + picture_.width, [&row](std::uint32_t pixel) {
    for (const int shift : {16, 8, 0}) {
      row.push_back(static_cast<std::uint8_t>(pixel >> shift & 0xffU));
    }
  });
  return row;
}

}  // namespace kvtile
