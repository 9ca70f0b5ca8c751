#include "FigureTable.h"

#include <algorithm>
#include <cmath>
#include <fstream>

void FigureTable::Add(const std::string& figure, const std::string& unit, Program program, double value)
{
    auto row = std::find_if(rows_.begin(), rows_.end(), [&](const Row& r) { return r.figure == figure; });
    if (row == rows_.end()) {
        rows_.push_back(Row{figure, unit, {}});
        row = rows_.end() - 1;
    }
    row->values[program].push_back(value);
}

void FigureTable::Fault(const std::string& text)
{
    faults_.push_back(text);
}

double FigureTable::Median(std::vector<double> values)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    size_t middle = values.size() / 2;
    return values.size() % 2 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

void FigureTable::Print(std::FILE* out) const
{
    auto cell = [](double value) {
        char text[32];
        if (std::isnan(value))
            return std::string("-");
        std::snprintf(text, sizeof text, std::fabs(value) >= 100 || value == 0 ? "%.0f" : "%.3g", value);
        return std::string(text);
    };
    std::fprintf(out, "%-62s %-8s %10s %10s %8s\n", "figure (median)", "unit", "plug-in", "baseline", "ratio");
    for (const Row& row : rows_) {
        double plugin = Median(row.values[Plugin]);
        double baseline = Median(row.values[Baseline]);
        double ratio = baseline != 0 ? plugin / baseline : NAN;
        std::fprintf(out, "%-62s %-8s %10s %10s %8s\n", row.figure.c_str(), row.unit.c_str(), cell(plugin).c_str(),
                     cell(baseline).c_str(), cell(ratio).c_str());
    }
    for (const std::string& fault : faults_)
        std::fprintf(out, "FAULT %s\n", fault.c_str());
}

std::string FigureTable::Escaped(const std::string& text)
{
    std::string escaped;
    for (char c : text) {
        if (c == '"' || c == '\\')
            escaped += '\\';
        if (c == '\n')
            escaped += "\\n";
        else
            escaped += c;
    }
    return escaped;
}

bool FigureTable::WriteJson(const std::string& path, int repeats, bool quick) const
{
    std::ofstream out(path);
    auto number = [](double value) {
        if (std::isnan(value))
            return std::string("null");
        char text[32];
        std::snprintf(text, sizeof text, "%.6g", value);
        return std::string(text);
    };
    out << "{\n  \"repeats\": " << repeats << ",\n  \"quick\": " << (quick ? "true" : "false")
        << ",\n  \"figures\": [\n";
    for (size_t i = 0; i < rows_.size(); ++i) {
        const Row& row = rows_[i];
        double plugin = Median(row.values[Plugin]);
        double baseline = Median(row.values[Baseline]);
        out << "    {\"figure\": \"" << Escaped(row.figure) << "\", \"unit\": \"" << Escaped(row.unit)
            << "\", \"plugin\": " << number(plugin) << ", \"baseline\": " << number(baseline)
            << ", \"ratio\": " << number(baseline != 0 ? plugin / baseline : NAN) << ", \"samples\": ["
            << row.values[Plugin].size() << ", " << row.values[Baseline].size() << "]}"
            << (i + 1 < rows_.size() ? "," : "") << "\n";
    }
    out << "  ],\n  \"faults\": [";
    for (size_t i = 0; i < faults_.size(); ++i)
        out << (i ? ", " : "") << "\"" << Escaped(faults_[i]) << "\"";
    out << "]\n}\n";
    return static_cast<bool>(out);
}
