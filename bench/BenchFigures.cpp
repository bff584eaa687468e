#include "BenchFigures.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <vector>

namespace {

struct Figure
{
    std::string name;
    std::string unit;  // "x" for ratios
    std::string baselineName;
    double goal = 0;
    std::vector<double> samples;
    std::vector<double> subjectSeconds;
    std::vector<double> baselineSeconds;
};

std::vector<Figure>& Figures()
{
    static std::vector<Figure> figures;
    return figures;
}

Figure& FigureNamed(const std::string& name, double goal, const std::string& unit)
{
    for (Figure& figure : Figures()) {
        if (figure.name == name) {
            return figure;
        }
    }
    Figures().push_back(Figure{name, unit, "", goal, {}, {}, {}});
    return Figures().back();
}

double Median(std::vector<double> values)
{
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

double Min(const std::vector<double>& values)
{
    return values.empty() ? 0 : *std::min_element(values.begin(), values.end());
}

double Max(const std::vector<double>& values)
{
    return values.empty() ? 0 : *std::max_element(values.begin(), values.end());
}

/* A goal is met when the median is within it. */
const char* Verdict(const Figure& figure)
{
    if (figure.goal <= 0) {
        return "-";
    }
    return Median(figure.samples) <= figure.goal ? "met" : "NOT met";
}

std::string JsonText(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') {
            out.push_back('\\');
        }
        out.push_back(c);
    }
    return out + "\"";
}

std::string JsonList(const std::vector<double>& values, double scale)
{
    std::string out = "[";
    char buffer[64];
    for (size_t i = 0; i < values.size(); ++i) {
        std::snprintf(buffer, sizeof buffer, "%s%.6g", i == 0 ? "" : ", ", values[i] * scale);
        out += buffer;
    }
    return out + "]";
}

}  // namespace

bool g_shortRun = false;

bool ShortRun()
{
    return g_shortRun;
}

int Pairs(int full, int shortRun)
{
    return g_shortRun ? shortRun : full;
}

void RecordRatio(const std::string& figure, double goal, double subjectSeconds, double baselineSeconds,
                 const std::string& baselineName)
{
    if (baselineSeconds <= 0) {
        return;
    }
    Figure& f = FigureNamed(figure, goal, "x");
    f.baselineName = baselineName;
    f.samples.push_back(subjectSeconds / baselineSeconds);
    f.subjectSeconds.push_back(subjectSeconds);
    f.baselineSeconds.push_back(baselineSeconds);
}

void RecordValue(const std::string& figure, double goal, const std::string& unit, double value)
{
    FigureNamed(figure, goal, unit).samples.push_back(value);
}

void PrintFigures(std::FILE* out)
{
    if (Figures().empty()) {
        return;
    }
    std::fprintf(out, "\n%-58s %7s %8s %17s %4s  %-8s %s\n", "figure", "goal", "median", "range", "n", "verdict",
                 "per repetition (subject us / baseline us, medians)");
    for (const Figure& f : Figures()) {
        char goal[32] = "-";
        if (f.goal > 0) {
            std::snprintf(goal, sizeof goal, "<=%.4g%s", f.goal, f.unit.c_str());
        }
        char range[48];
        std::snprintf(range, sizeof range, "%.3g..%.3g", Min(f.samples), Max(f.samples));
        std::string every;
        char buffer[32];
        for (double sample : f.samples) {
            std::snprintf(buffer, sizeof buffer, "%s%.3g", every.empty() ? "" : " ", sample);
            every += buffer;
        }
        std::string times;
        if (!f.subjectSeconds.empty()) {
            char text[96];
            std::snprintf(text, sizeof text, "  (%.1f / %.1f vs %s)", Median(f.subjectSeconds) * 1e6,
                          Median(f.baselineSeconds) * 1e6, f.baselineName.c_str());
            times = text;
        }
        std::fprintf(out, "%-58s %7s %7.3g%s %17s %4zu  %-8s [%s]%s\n", f.name.c_str(), goal, Median(f.samples),
                     f.unit.c_str(), range, f.samples.size(), Verdict(f), every.c_str(), times.c_str());
    }
}

bool SaveFigures(const std::string& path)
{
    std::ofstream out(path, std::ios::trunc);
    if (!out) {
        return false;
    }
    out << "{\n  \"short_run\": " << (g_shortRun ? "true" : "false") << ",\n  \"figures\": [";
    bool first = true;
    for (const Figure& f : Figures()) {
        char numbers[160];
        std::snprintf(numbers, sizeof numbers, "\"goal\": %.6g, \"median\": %.6g, \"min\": %.6g, \"max\": %.6g",
                      f.goal, Median(f.samples), Min(f.samples), Max(f.samples));
        out << (first ? "\n" : ",\n") << "    {\"name\": " << JsonText(f.name) << ", \"unit\": " << JsonText(f.unit)
            << ", " << numbers << ", \"verdict\": " << JsonText(Verdict(f))
            << ", \"samples\": " << JsonList(f.samples, 1);
        if (!f.subjectSeconds.empty()) {
            out << ", \"baseline\": " << JsonText(f.baselineName)
                << ", \"subject_us\": " << JsonList(f.subjectSeconds, 1e6)
                << ", \"baseline_us\": " << JsonList(f.baselineSeconds, 1e6);
        }
        out << "}";
        first = false;
    }
    out << "\n  ]\n}\n";
    return static_cast<bool>(out);
}
