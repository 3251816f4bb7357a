// What the library costs.
#include <benchmark/benchmark.h>
#include <sodium.h>

#include <string>

#include "Comparison.h"
#include "Machine.h"
#include "Rows.h"
#include "hash/Blake2sp.h"

namespace kelvane::bench {

Requirement must(double withAvx512, double withAvx2)
{
    const std::string instructionSet = blake2spInstructionSet();
    return {instructionSet.starts_with("AVX3") ? withAvx512 : instructionSet == "AVX2" ? withAvx2 : 0};
}

} // namespace kelvane::bench

int main(int argc, char** argv)
{
    using namespace kelvane::bench;
    benchmark::Initialize(&argc, argv);
    if (sodium_init() < 0 || benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::AddCustomContext("processor", processorName());
    benchmark::AddCustomContext("instruction set", kelvane::blake2spInstructionSet());
    addHashingRows();
    addStoreRows();
    add("clock", 501, clockRate);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
