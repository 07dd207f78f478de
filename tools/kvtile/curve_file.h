// Files that hold a tone curve.
#ifndef KVTILE_CURVE_FILE_H
#define KVTILE_CURVE_FILE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kvtile {

// The entries of the curve in the file `path` for samples of `bits` (8 or 16) bits, one for each value in ascending
// order. Throws a Failure that names the file, and the line if it is a text, where there is no such curve in it.
//
// A text holds control points, "input output" in each line, as fractions of the highest value: numbers from 0 to 1, at
// least two points, inputs ascending. Between the points lie straight lines; before the first and behind the last
// point their outputs go on. '#' begins a comment; empty lines do not count. Entries are rounded half up.
//
// Any other file holds the entries themselves: 256 bytes for 8 bits, or 65536 little-endian numbers of 16 bits.
std::vector<std::uint16_t> readCurveFile(const std::string& path, std::uint32_t bits);

// The same for what has been read; `path` is for messages.
std::vector<std::uint16_t> parseCurveText(const std::string& path, std::string_view text, std::uint32_t bits);
std::vector<std::uint16_t> parseCurveTable(const std::string& path, std::string_view bytes, std::uint32_t bits);

}  // namespace kvtile

#endif
