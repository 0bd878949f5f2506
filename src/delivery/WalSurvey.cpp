#include "delivery/WalSurvey.h"

#include <algorithm>
#include <array>
#include <fstream>

namespace velquin {
namespace {

constexpr std::size_t kHeaderBytes = 32;
constexpr std::size_t kFrameHeaderBytes = 24;
constexpr std::uint32_t kMagic = 0x377f0682;  // low bit: checksum words big-endian
constexpr std::uint32_t kVersion = 3007000;

std::uint32_t bigEndian32(const std::uint8_t* p) {
  return (std::uint32_t{p[0]} << 24) | (std::uint32_t{p[1]} << 16) | (std::uint32_t{p[2]} << 8) |
         std::uint32_t{p[3]};
}

std::uint32_t littleEndian32(const std::uint8_t* p) {
  return (std::uint32_t{p[3]} << 24) | (std::uint32_t{p[2]} << 16) | (std::uint32_t{p[1]} << 8) |
         std::uint32_t{p[0]};
}

struct Checksum {
  std::uint32_t s0 = 0;
  std::uint32_t s1 = 0;
  bool operator==(const Checksum&) const = default;
};

// The log's checksum over `size` bytes (a multiple of 8), continuing from
// `sum`: pairs of 32-bit words, in the byte order the header's magic names.
Checksum addChecksum(Checksum sum, bool bigEndianWords, const std::uint8_t* data,
                     std::size_t size) {
  for (std::size_t i = 0; i + 8 <= size; i += 8) {
    const std::uint32_t x0 = bigEndianWords ? bigEndian32(data + i) : littleEndian32(data + i);
    const std::uint32_t x1 =
        bigEndianWords ? bigEndian32(data + i + 4) : littleEndian32(data + i + 4);
    sum.s0 += x0 + sum.s1;
    sum.s1 += x1 + sum.s0;
  }
  return sum;
}

Checksum storedChecksum(const std::uint8_t* at) {
  return {bigEndian32(at), bigEndian32(at + 4)};
}

bool validPageSize(std::uint32_t size) {
  return size >= 512 && size <= 65536 && (size & (size - 1)) == 0;
}

}  // namespace

std::size_t WalSurvey::framesAfter(std::uint32_t kept) const {
  return static_cast<std::size_t>(saltFrames.end() -
                                  std::upper_bound(saltFrames.begin(), saltFrames.end(), kept));
}

WalSurvey surveyWal(const std::filesystem::path& wal) {
  WalSurvey survey;
  std::ifstream in(wal, std::ios::binary);
  std::array<std::uint8_t, kHeaderBytes> header{};
  if (!in.read(reinterpret_cast<char*>(header.data()), header.size())) return survey;
  const std::uint32_t magic = bigEndian32(header.data());
  const std::uint32_t pageSize = bigEndian32(header.data() + 8);
  if ((magic & ~1u) != kMagic || bigEndian32(header.data() + 4) != kVersion ||
      !validPageSize(pageSize)) {
    return survey;
  }
  const bool bigEndianWords = (magic & 1u) != 0;
  const std::uint32_t salt1 = bigEndian32(header.data() + 16);
  const std::uint32_t salt2 = bigEndian32(header.data() + 20);
  const Checksum headerSum = storedChecksum(header.data() + 24);
  // Recovery ignores the whole log when the header's checksum fails.
  bool chainIntact = addChecksum({}, bigEndianWords, header.data(), 24) == headerSum;
  Checksum running = headerSum;
  Checksum previousStored = headerSum;

  std::vector<std::uint8_t> frame(kFrameHeaderBytes + pageSize);
  for (std::uint32_t index = 1;
       in.read(reinterpret_cast<char*>(frame.data()), static_cast<std::streamsize>(frame.size()));
       ++index) {
    survey.present = true;
    const std::uint8_t* head = frame.data();
    const bool ours = bigEndian32(head + 8) == salt1 && bigEndian32(head + 12) == salt2;
    const bool commit = bigEndian32(head + 4) != 0;
    const bool hasPage = bigEndian32(head) != 0;
    const Checksum stored = storedChecksum(head + 16);
    auto sumFrom = [&](Checksum seed) {
      seed = addChecksum(seed, bigEndianWords, head, 8);
      return addChecksum(seed, bigEndianWords, head + kFrameHeaderBytes, pageSize);
    };
    if (ours) survey.saltFrames.push_back(index);
    // On its own: against the checksum the previous frame stores.
    if (ours && hasPage && commit && sumFrom(previousStored) == stored) {
      survey.lastIntactCommit = index;
    }
    // As recovery reads it: the chain from the header, up to the first break.
    if (chainIntact) {
      running = sumFrom(running);
      chainIntact = ours && hasPage && running == stored;
      if (chainIntact && commit) survey.recoverable = index;
    }
    previousStored = stored;
  }
  return survey;
}

}  // namespace velquin
