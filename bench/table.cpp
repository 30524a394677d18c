#include "table.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdio>
#include <functional>

namespace tervane::bench {

namespace {

const Result* Find(const Results& results, const std::string& name) {
    auto it = results.find(name);
    return it == results.end() || !it->second.error.empty() ? nullptr : &it->second;
}

double Counter(const Result* r, const std::string& name) {
    if (r == nullptr) return NAN;
    auto it = r->counters.find(name);
    return it == r->counters.end() ? NAN : it->second;
}

std::string Format(const char* format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string Time(double ns) {
    if (std::isnan(ns)) return "";
    if (ns < 1e3) return Format("%.0f ns", ns);
    if (ns < 1e4) return Format("%.2f µs", ns / 1e3);
    if (ns < 1e6) return Format("%.1f µs", ns / 1e3);
    if (ns < 1e9) return Format("%.1f ms", ns / 1e6);
    return Format("%.2f s", ns / 1e9);
}

std::string Rate(double perSecond, const char* what) {
    if (std::isnan(perSecond)) return "";
    if (perSecond >= 1e6) return Format("%.2f M", perSecond / 1e6) + " " + what + "/s";
    if (perSecond >= 1e3) return Format("%.0f k", perSecond / 1e3) + " " + what + "/s";
    return Format("%.0f", perSecond) + " " + what + "/s";
}

std::string Ratio(double ratio, const std::string& of) {
    if (std::isnan(ratio) || std::isinf(ratio)) return "";
    return Format(ratio < 10 ? "%.2f×" : "%.1f×", ratio) + " " + of;
}

double Ns(const Results& results, const std::string& name) {
    const Result* r = Find(results, name);
    return r == nullptr ? NAN : r->ns;
}

double CpuNs(const Results& results, const std::string& name) {
    const Result* r = Find(results, name);
    return r == nullptr ? NAN : r->cpuNs;
}

// The same ratio by the measuring thread's CPU time, which other work on a
// busy machine changes far less than the elapsed time.
std::string CpuRatio(double ratio) {
    if (std::isnan(ratio) || std::isinf(ratio)) return "";
    return Format(" (CPU %.2f×)", ratio);
}

}  // namespace

std::vector<Row> BuildTable(const Results& results) {
    std::vector<Row> rows;
    auto ns = [&](const std::string& name) { return Ns(results, name); };
    auto counter = [&](const std::string& name, const std::string& which) {
        return Counter(Find(results, name), which);
    };
    auto timeRow = [&](const std::string& section, const std::string& what, const std::string& name,
                       const std::string& of = "", const std::string& ofLabel = "", const std::string& target = "") {
        Row row{section, what, Time(ns(name)), "", target};
        if (!of.empty()) {
            row.ratio = Ratio(ns(name) / ns(of), ofLabel);
            // The host's cp works in a process of its own: no CPU time here.
            if (!row.ratio.empty() && of != "copy/host")
                row.ratio += CpuRatio(CpuNs(results, name) / CpuNs(results, of));
        }
        rows.push_back(row);
    };

    const std::string open = "open + 4 KiB read + close";
    timeRow(open, "host (POSIX)", "open/host");
    timeRow(open, "machine, no driver", "open/machine", "open/host", "host", "≤ 2×");
    timeRow(open, "driver loaded, process not monitored", "open/passthrough", "open/machine", "no driver",
            "≤ 1.03×");
    for (int layer = 0; layer < 3; layer++) {
        const std::string l = std::to_string(layer);
        const double lower = counter("open/redirected/" + l, "lower_opens");
        timeRow(open, "redirected from filter directory " + l, "open/redirected/" + l, "open/inherent/" + l,
                "its lower opens", "≤ 1.15×");
        Row inherent{open, "  its " + (std::isnan(lower) ? std::string("?") : Format("%.0f", lower)) +
                               " lower opens made by hand",
                     Time(ns("open/inherent/" + l)), "", ""};
        rows.push_back(inherent);
    }

    const std::string io = "transfer on an open handle";
    for (const char* op : {"read", "write"}) {
        for (const char* size : {"4k", "1m"}) {
            const std::string base = std::string("io/") + op + "/" + size;
            const std::string label = std::string(size[0] == '4' ? "4 KiB " : "1 MiB ") + op;
            if (std::string(op) == "read") {
                timeRow(io, label + ", host pread", base + "/host");
                timeRow(io, label + ", pass-through", base + "/passthrough", base + "/host", "host");
            } else {
                timeRow(io, label + ", pass-through", base + "/passthrough");
            }
            timeRow(io, label + ", redirected", base + "/redirected", base + "/passthrough", "pass-through",
                    std::string(op) == "read" && size[0] == '4' ? "≤ 1.5×" : "");
        }
    }

    const std::string copy = "copy of a large file";
    timeRow(copy, "host cp", "copy/host");
    timeRow(copy, "machine, NtReadFile/NtWriteFile in 64 KiB chunks", "copy/machine", "copy/host", "host");
    {
        Row row{copy, "copy-up on the first write", Time(ns("copy/copyup")), "", "≥ 0.8× (speed)"};
        row.ratio = Ratio(ns("copy/machine") / ns("copy/copyup"), "speed of the machine copy");
        if (!row.ratio.empty())
            row.ratio += CpuRatio(CpuNs(results, "copy/machine") / CpuNs(results, "copy/copyup"));
        rows.push_back(row);
    }

    const std::string index = "index lookup, 5 components deep";
    for (const auto& [name, result] : results) {
        if (name.rfind("index/", 0) != 0) continue;
        std::string rest = name.substr(6);
        std::string entries = rest.substr(0, rest.find('/'));
        std::string kind = rest.substr(rest.find('/') + 1);
        rows.push_back(Row{index, entries + " entries, " + kind, Time(ns(name)), "",
                           entries == "100000" ? "≤ 1 µs" : ""});
    }

    const std::string list = "full listing of a folder";
    {
        const double host = counter("list/host", "items_per_second");
        const double real = counter("list/real", "items_per_second");
        const double merged = counter("list/merged", "items_per_second");
        rows.push_back(Row{list, "host: directory read and a status per entry", Rate(host, "entries"), "", ""});
        rows.push_back(Row{list, "one real folder", Rate(real, "entries"), Ratio(host / real, "the host's cost per entry"),
                           ""});
        // Entries per second of the measuring thread's CPU time.
        auto cpuRate = [&](const std::string& name, double rate) {
            return rate * ns(name) / CpuNs(results, name);
        };
        const double realCpu = cpuRate("list/real", real), mergedCpu = cpuRate("list/merged", merged);
        std::string mergedRate = Rate(merged, "entries");
        if (!std::isnan(mergedCpu) && !mergedRate.empty()) mergedRate += " (" + Rate(mergedCpu, "entries") + " of CPU)";
        std::string ratio = Ratio(real / merged, "the real folder's cost per entry");
        if (!ratio.empty()) ratio += CpuRatio(realCpu / mergedCpu);
        rows.push_back(Row{list, "merged, three filter directories", mergedRate, ratio, "≤ 1.5×, ≥ 1 M entries/s"});
    }

    const std::string pool = "pool held per open (1,000 held)";
    for (const char* kind : {"redirected", "passthrough"}) {
        const std::string name = std::string("pool/") + kind;
        const double all = counter(name, "bytes_per_open");
        const double general = counter(name, "trvm_per_open");
        rows.push_back(Row{pool, std::string(kind) == "redirected" ? "redirected open" : "pass-through open",
                           std::isnan(all) ? "" : Format("%.0f bytes", all),
                           std::isnan(general) ? "" : Format("%.0f bytes of it \"Trvm\"", general),
                           std::string(kind) == "redirected" ? "≤ 1,500 bytes" : ""});
    }

    const std::string scale = "redirected open + read + close as the machine fills";
    std::string firstOpens, firstHidden;
    for (const auto& [name, result] : results) {
        if (name.rfind("scale/opens/", 0) == 0 && firstOpens.empty()) firstOpens = name;
        if (name.rfind("scale/hidden/", 0) == 0 && firstHidden.empty()) firstHidden = name;
    }
    for (const auto& [name, result] : results) {
        if (name.rfind("scale/opens/", 0) != 0) continue;
        timeRow(scale, name.substr(12) + " other files open", name, firstOpens, "the fewest", "flat");
    }
    for (const auto& [name, result] : results) {
        if (name.rfind("scale/hidden/", 0) != 0) continue;
        timeRow(scale, name.substr(13) + " hidden names beside it", name, firstHidden, "none", "≤ 1.15×");
    }

    const std::string threads = "threads opening and reading files of their own";
    for (const char* kind : {"host", "machine", "redirected"}) {
        const std::string base = std::string("threads/") + kind + "/";
        const double one = counter(base + "1", "items_per_second");
        for (const char* n : {"1", "2", "4"}) {
            const double rate = counter(base + n, "items_per_second");
            const double busy = counter(base + n, "cores_busy");
            const double ready = counter(base + n, "threads_ready");
            Row row{threads, std::string(kind) + ", " + n + (n[0] == '1' ? " thread" : " threads"),
                    Rate(rate, "opens") + (std::isnan(busy) ? "" : Format(", %.2f cores busy", busy)) +
                        (std::isnan(ready) ? "" : Format(", %.2f threads ready", ready)),
                    "", ""};
            if (n[0] != '1') row.ratio = Ratio(rate / one, "1 thread");
            if (n[0] == '2' && std::string(kind) != "host") row.target = "≥ 1.6×";
            rows.push_back(row);
        }
    }

    timeRow("kernel debug log", "one driver log line (head and message)", "log/line");

    // Rows whose benchmarks did not run are left out.
    std::vector<Row> kept;
    for (const Row& row : rows) {
        if (!row.figure.empty()) kept.push_back(row);
    }
    return kept;
}

void PrintTable(std::ostream& out, const std::vector<Row>& rows) {
    std::string section;
    out << "| what | figure | ratio | target |\n|---|---|---|---|\n";
    for (const Row& row : rows) {
        if (row.section != section) {
            section = row.section;
            out << "| **" << section << "** | | | |\n";
        }
        out << "| " << row.what << " | " << row.figure << " | " << row.ratio << " | " << row.target << " |\n";
    }
}

void PrintJson(std::ostream& out, const std::vector<Row>& rows, const Results& results) {
    nlohmann::json json;
    json["rows"] = nlohmann::json::array();
    for (const Row& row : rows) {
        json["rows"].push_back({{"section", row.section},
                                {"what", row.what},
                                {"figure", row.figure},
                                {"ratio", row.ratio},
                                {"target", row.target}});
    }
    for (const auto& [name, result] : results) {
        nlohmann::json entry = {{"ns_per_iteration", result.ns}};
        for (const auto& [counter, value] : result.counters) entry[counter] = value;
        if (!result.error.empty()) entry["error"] = result.error;
        json["benchmarks"][name] = entry;
    }
    out << json.dump(2) << "\n";
}

}  // namespace tervane::bench
