// Pairs of benchmarks whose time ratio the benchmark program prints at the end.
#pragma once

#include <string>
#include <vector>

namespace LumoBench {

struct Ratio {
  std::string label;
  std::string numerator;    // benchmark name as reported, e.g. "BM_Engine/640/400"
  std::string denominator;
};

std::vector<Ratio>& ratios();
bool registerRatio(const char* label, const char* numerator, const char* denominator);

}  // namespace LumoBench

#define LUMO_RATIO_CONCAT2(a, b) a##b
#define LUMO_RATIO_CONCAT(a, b) LUMO_RATIO_CONCAT2(a, b)
#define LUMO_RATIO(label, numerator, denominator) \
  static const bool LUMO_RATIO_CONCAT(lumoRatio, __LINE__) = LumoBench::registerRatio(label, numerator, denominator)
