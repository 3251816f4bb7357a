// The rows of the benchmarks' table.
#pragma once

#include "Comparison.h"

namespace kelvane::bench {

// What a row must show on the instruction set in use.
Requirement must(double withAvx512, double withAvx2);

void addHashingRows();
void addStoreRows();

} // namespace kelvane::bench
