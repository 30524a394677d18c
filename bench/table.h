// The summary of a run: one table of figures and the ratios between
// benchmarks measured side by side, as text or as JSON.
#pragma once

#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace tervane::bench {

// One benchmark's result: the median over repetitions where there were any.
struct Result {
    double ns = 0;                        // real time per iteration
    double cpuNs = 0;                     // CPU time of the measuring thread per iteration
    std::map<std::string, double> counters;  // user counters, items_per_second, bytes_per_second
    std::string error;                    // set when the benchmark failed
};
using Results = std::map<std::string, Result>;

struct Row {
    std::string section;
    std::string what;
    std::string figure;  // "" when its benchmark did not run
    std::string ratio;   // "" when the row has none
    std::string target;  // "" when the row has none
};

std::vector<Row> BuildTable(const Results& results);
void PrintTable(std::ostream& out, const std::vector<Row>& rows);
void PrintJson(std::ostream& out, const std::vector<Row>& rows, const Results& results);

}  // namespace tervane::bench
