// Handles of lookup tables and maps that destroy themselves, and what is in a table.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/image.h"

namespace support {

struct DestroyTable {
  void operator()(LookupTableHandle* tableOrMap) const { KvTileImage_DestroyLookupTable(tableOrMap); }
};

using Table = std::unique_ptr<LookupTableHandle, DestroyTable>;
using TableMap = std::unique_ptr<LookupTableMapHandle, DestroyTable>;

// Samples of 8 or 16 bits as callers' buffers hold them, and back.
inline std::vector<std::uint8_t> bytesOf(const std::vector<std::uint32_t>& samples, std::uint32_t bits) {
  std::vector<std::uint8_t> bytes;
  for (const std::uint32_t sample : samples) {
    bytes.push_back(static_cast<std::uint8_t>(sample));
    if (bits == 16) {
      bytes.push_back(static_cast<std::uint8_t>(sample >> 8));
    }
  }
  return bytes;
}

inline std::vector<std::uint32_t> samplesOf(const std::vector<std::uint8_t>& bytes, std::uint32_t bits) {
  std::vector<std::uint32_t> samples;
  for (std::size_t i = 0; i < bytes.size(); i += bits / 8) {
    samples.push_back(bits == 16 ? bytes[i] + 256U * bytes[i + 1] : bytes[i]);
  }
  return samples;
}

// Every value that a sample can have, in ascending order.
inline std::vector<std::uint32_t> everyValue(std::uint32_t bits) {
  std::vector<std::uint32_t> values;
  for (std::uint32_t value = 0; value < 1U << bits; ++value) {
    values.push_back(value);
  }
  return values;
}

// The entries of a table for samples of `bits`, as an image with every value shows them; empty if it shows none.
inline std::vector<std::uint32_t> entriesOf(const Table& table, std::uint32_t bits) {
  std::vector<std::uint8_t> row = bytesOf(everyValue(bits), bits);
  const Image image = allocate(1U << bits, 1, 1, bits);
  if (!KvTileImage_SetFullRowData(image.get(), 0, row.data(), row.size()) ||
      !KvTileImage_AdjustCurveOfAllChannels(image.get(), table.get(), nullptr) ||
      !KvTileImage_GetFullRowData(image.get(), 0, row.data(), row.size())) {
    return {};
  }
  return samplesOf(row, bits);
}

}  // namespace support
