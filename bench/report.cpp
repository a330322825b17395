#include "bench/report.h"

#include <stdio.h>

#include <algorithm>
#include <cstddef>

namespace velmar_bench {

namespace {

constexpr char kHeading[] = "what";
constexpr size_t kLineSize = 200;

std::string Line(const std::string& what, const std::string& product, const std::string& baseline,
                 const std::string& ratio, const std::string& wanted) {
    char line[kLineSize];
    (void)snprintf(line, sizeof(line), "| %-52s | %10s | %10s | %6s | %7s |\n", what.c_str(),
                   product.c_str(), baseline.c_str(), ratio.c_str(), wanted.c_str());
    return line;
}

std::string Number(double value, int digits) {
    char text[32];
    (void)snprintf(text, sizeof(text), "%.*f", digits, value);
    return text;
}

int DigitsOf(double value) {
    return value < 100 && value != static_cast<int>(value) ? 2 : 0;
}

}  // namespace

void Report::Add(const std::string& what, double product, double baseline,
                 const std::string& wanted) {
    Add(what, product, baseline, baseline == 0 ? 0 : product / baseline, wanted);
}

void Report::Add(const std::string& what, double product, double baseline, double ratio,
                 const std::string& wanted) {
    lines.push_back(Line(what, Number(product, DigitsOf(product)),
                         Number(baseline, DigitsOf(baseline)), ratio == 0 ? "" : Number(ratio, 2),
                         wanted));
}

void Report::Append(const Report& part) {
    lines.insert(lines.end(), part.lines.begin(), part.lines.end());
}

void Report::Print() const {
    printf("%s", Line(kHeading, "product", "baseline", "ratio", "wanted").c_str());
    printf("|%s|%s|%s|%s|%s|\n", std::string(54, '-').c_str(), std::string(12, '-').c_str(),
           std::string(12, '-').c_str(), std::string(8, '-').c_str(), std::string(9, '-').c_str());
    for (const std::string& line : lines) printf("%s", line.c_str());
}

double Quantile(std::vector<double> values, double share) {
    const auto position = static_cast<size_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(position),
                     values.end());
    return values[position];
}

}  // namespace velmar_bench
