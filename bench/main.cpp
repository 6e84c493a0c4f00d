#include <benchmark/benchmark.h>

#include <cstdio>
#include <iostream>

// Standard output goes nowhere, since loggers write to it. The results are on standard error and in
// the file of --benchmark_out.
int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    if (!freopen("/dev/null", "w", stdout)) return 1;
    benchmark::ConsoleReporter console;
    console.SetOutputStream(&std::cerr);
    console.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&console);
    return 0;
}
