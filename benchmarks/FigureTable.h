#pragma once

#include <cstdio>
#include <string>
#include <vector>

// The figures of a run: each measured for the plug-in and for the plain
// program, several times; reported as medians and their ratio, as a table and
// as JSON.
class FigureTable {
public:
    enum Program { Plugin, Baseline };

    void Add(const std::string& figure, const std::string& unit, Program program, double value);
    void Fault(const std::string& text);
    bool HasFaults() const { return !faults_.empty(); }

    void Print(std::FILE* out) const;
    bool WriteJson(const std::string& path, int repeats, bool quick) const;

private:
    struct Row {
        std::string figure;
        std::string unit;
        std::vector<double> values[2];
    };

    static double Median(std::vector<double> values);
    static std::string Escaped(const std::string& text);

    std::vector<Row> rows_;
    std::vector<std::string> faults_;
};
