// A program of pieces that are measured: runs one of them so many times, and prints the seconds that it took.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <span>
#include <string_view>

struct Piece {
  std::string_view name;
  bool (*run)(int count);
};

/// The program `program PIECE COUNT`. Returns its exit status: 1 when the piece failed, 2 for a wrong command line.
inline int run_piece(const char* program, std::span<const Piece> pieces, int argc, char** argv) {
  for (const Piece& piece : pieces) {
    if (argc != 3 || piece.name != argv[1]) continue;
    timespec before{}, after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    if (!piece.run(std::atoi(argv[2]))) {
      std::fprintf(stderr, "%s: %s failed\n", program, argv[1]);
      return 1;
    }
    clock_gettime(CLOCK_MONOTONIC, &after);
    std::printf("%.9f\n", static_cast<double>(after.tv_sec - before.tv_sec) +
                              static_cast<double>(after.tv_nsec - before.tv_nsec) / 1e9);
    return 0;
  }
  std::fprintf(stderr, "usage: %s PIECE COUNT; the pieces are the rows of %s.cpp\n", program, program);
  return 2;
}
