// The ways to turn a picture: how the program is asked for them, and the plain model of them.
#ifndef KVTILE_TESTS_MOVES_H
#define KVTILE_TESTS_MOVES_H

#include <string>
#include <vector>

#include "raster.h"

namespace support {

struct Move {
  std::vector<std::string> command;
  Raster (*model)(const Raster&);
  bool swapsSides;
  bool reversesRows;
};

inline Raster unmoved(const Raster& raster) { return raster; }

inline const std::vector<Move>& moves() {
  static const std::vector<Move> all = {{{"convert"}, unmoved, false, false},
                                        {{"rotate", "90"}, rotated90, true, false},
                                        {{"rotate", "180"}, rotated180, false, true},
                                        {{"rotate", "270"}, rotated270, true, true},
                                        {{"rotate", "-90"}, rotated270, true, true},
                                        {{"mirror", "horizontal"}, mirroredLeftRight, false, true},
                                        {{"mirror", "vertical"}, mirroredTopBottom, false, false}};
  return all;
}

// `move`'s command with what follows it.
inline std::vector<std::string> commandLine(const Move& move, const std::vector<std::string>& rest) {
  std::vector<std::string> words = move.command;
  words.insert(words.end(), rest.begin(), rest.end());
  return words;
}

}  // namespace support

#endif
